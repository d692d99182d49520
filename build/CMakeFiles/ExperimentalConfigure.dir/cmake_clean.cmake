file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalConfigure"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalConfigure.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
