file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalCoverage"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalCoverage.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
