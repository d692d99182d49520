file(REMOVE_RECURSE
  "CMakeFiles/NightlyConfigure"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/NightlyConfigure.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
