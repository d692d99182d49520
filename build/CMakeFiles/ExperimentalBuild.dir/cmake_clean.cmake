file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalBuild"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalBuild.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
