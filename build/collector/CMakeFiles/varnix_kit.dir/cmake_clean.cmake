file(REMOVE_RECURSE
  "CMakeFiles/varnix_kit.dir/kit.cpp.o"
  "CMakeFiles/varnix_kit.dir/kit.cpp.o.d"
  "libvarnix_kit.a"
  "libvarnix_kit.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/varnix_kit.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
