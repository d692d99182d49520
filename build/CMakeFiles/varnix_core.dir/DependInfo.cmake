
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/main/context/get_ptrc_hash.cpp" "CMakeFiles/varnix_core.dir/context/get_ptrc_hash.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/context/get_ptrc_hash.cpp.o.d"
  "/work/main/context/get_svc_hash.cpp" "CMakeFiles/varnix_core.dir/context/get_svc_hash.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/context/get_svc_hash.cpp.o.d"
  "/work/main/context/hash.cpp" "CMakeFiles/varnix_core.dir/context/hash.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/context/hash.cpp.o.d"
  "/work/main/context/ptrc_hash_stk.cpp" "CMakeFiles/varnix_core.dir/context/ptrc_hash_stk.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/context/ptrc_hash_stk.cpp.o.d"
  "/work/main/context/svc_hash_stk.cpp" "CMakeFiles/varnix_core.dir/context/svc_hash_stk.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/context/svc_hash_stk.cpp.o.d"
  "/work/main/core/encoding_util.cpp" "CMakeFiles/varnix_core.dir/core/encoding_util.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/core/encoding_util.cpp.o.d"
  "/work/main/core/log_printf.cpp" "CMakeFiles/varnix_core.dir/core/log_printf.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/core/log_printf.cpp.o.d"
  "/work/main/core/msgq.cpp" "CMakeFiles/varnix_core.dir/core/msgq.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/core/msgq.cpp.o.d"
  "/work/main/core/readcfg.cpp" "CMakeFiles/varnix_core.dir/core/readcfg.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/core/readcfg.cpp.o.d"
  "/work/main/core/sem.cpp" "CMakeFiles/varnix_core.dir/core/sem.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/core/sem.cpp.o.d"
  "/work/main/core/tran_ex.cpp" "CMakeFiles/varnix_core.dir/core/tran_ex.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/core/tran_ex.cpp.o.d"
  "/work/main/tong/deffered_que.cpp" "CMakeFiles/varnix_core.dir/tong/deffered_que.cpp.o" "gcc" "CMakeFiles/varnix_core.dir/tong/deffered_que.cpp.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
