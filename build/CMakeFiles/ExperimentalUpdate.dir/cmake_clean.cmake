file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalUpdate"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalUpdate.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
