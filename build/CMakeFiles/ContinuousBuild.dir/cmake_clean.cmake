file(REMOVE_RECURSE
  "CMakeFiles/ContinuousBuild"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ContinuousBuild.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
