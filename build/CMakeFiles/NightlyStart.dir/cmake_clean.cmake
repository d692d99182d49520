file(REMOVE_RECURSE
  "CMakeFiles/NightlyStart"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/NightlyStart.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
