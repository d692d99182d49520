file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalStart"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalStart.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
