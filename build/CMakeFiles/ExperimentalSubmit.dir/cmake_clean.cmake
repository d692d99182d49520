file(REMOVE_RECURSE
  "CMakeFiles/ExperimentalSubmit"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/ExperimentalSubmit.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
