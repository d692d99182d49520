file(REMOVE_RECURSE
  "libvarnix.pdb"
  "libvarnix.so"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/varnix.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
