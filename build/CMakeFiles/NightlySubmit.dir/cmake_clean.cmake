file(REMOVE_RECURSE
  "CMakeFiles/NightlySubmit"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/NightlySubmit.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
