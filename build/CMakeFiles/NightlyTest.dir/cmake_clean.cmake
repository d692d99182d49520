file(REMOVE_RECURSE
  "CMakeFiles/NightlyTest"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/NightlyTest.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
