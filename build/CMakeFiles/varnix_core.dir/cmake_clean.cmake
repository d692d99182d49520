file(REMOVE_RECURSE
  "CMakeFiles/varnix_core.dir/context/get_ptrc_hash.cpp.o"
  "CMakeFiles/varnix_core.dir/context/get_ptrc_hash.cpp.o.d"
  "CMakeFiles/varnix_core.dir/context/get_svc_hash.cpp.o"
  "CMakeFiles/varnix_core.dir/context/get_svc_hash.cpp.o.d"
  "CMakeFiles/varnix_core.dir/context/hash.cpp.o"
  "CMakeFiles/varnix_core.dir/context/hash.cpp.o.d"
  "CMakeFiles/varnix_core.dir/context/ptrc_hash_stk.cpp.o"
  "CMakeFiles/varnix_core.dir/context/ptrc_hash_stk.cpp.o.d"
  "CMakeFiles/varnix_core.dir/context/svc_hash_stk.cpp.o"
  "CMakeFiles/varnix_core.dir/context/svc_hash_stk.cpp.o.d"
  "CMakeFiles/varnix_core.dir/core/encoding_util.cpp.o"
  "CMakeFiles/varnix_core.dir/core/encoding_util.cpp.o.d"
  "CMakeFiles/varnix_core.dir/core/log_printf.cpp.o"
  "CMakeFiles/varnix_core.dir/core/log_printf.cpp.o.d"
  "CMakeFiles/varnix_core.dir/core/msgq.cpp.o"
  "CMakeFiles/varnix_core.dir/core/msgq.cpp.o.d"
  "CMakeFiles/varnix_core.dir/core/readcfg.cpp.o"
  "CMakeFiles/varnix_core.dir/core/readcfg.cpp.o.d"
  "CMakeFiles/varnix_core.dir/core/sem.cpp.o"
  "CMakeFiles/varnix_core.dir/core/sem.cpp.o.d"
  "CMakeFiles/varnix_core.dir/core/tran_ex.cpp.o"
  "CMakeFiles/varnix_core.dir/core/tran_ex.cpp.o.d"
  "CMakeFiles/varnix_core.dir/tong/deffered_que.cpp.o"
  "CMakeFiles/varnix_core.dir/tong/deffered_que.cpp.o.d"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/varnix_core.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
