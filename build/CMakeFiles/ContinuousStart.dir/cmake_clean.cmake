file(REMOVE_RECURSE
  "CMakeFiles/ContinuousStart"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ContinuousStart.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
