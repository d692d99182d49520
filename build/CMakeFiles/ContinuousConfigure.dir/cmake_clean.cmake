file(REMOVE_RECURSE
  "CMakeFiles/ContinuousConfigure"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ContinuousConfigure.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
