file(REMOVE_RECURSE
  "CMakeFiles/ContinuousMemCheck"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ContinuousMemCheck.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
