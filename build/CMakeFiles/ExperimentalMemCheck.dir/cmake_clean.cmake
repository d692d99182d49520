file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalMemCheck"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalMemCheck.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
