file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalTest"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalTest.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
