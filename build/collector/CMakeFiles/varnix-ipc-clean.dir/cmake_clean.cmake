file(REMOVE_RECURSE
  "CMakeFiles/varnix-ipc-clean.dir/ipc_clean.cpp.o"
  "CMakeFiles/varnix-ipc-clean.dir/ipc_clean.cpp.o.d"
  "varnix-ipc-clean"
  "varnix-ipc-clean.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/varnix-ipc-clean.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
