file(REMOVE_RECURSE
  "CMakeFiles/ContinuousSubmit"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ContinuousSubmit.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
