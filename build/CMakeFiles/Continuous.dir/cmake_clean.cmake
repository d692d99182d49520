file(REMOVE_RECURSE
  "CMakeFiles/Continuous"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/Continuous.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
