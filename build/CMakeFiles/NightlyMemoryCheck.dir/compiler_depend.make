# Empty custom commands generated dependencies file for NightlyMemoryCheck.
# This may be replaced when dependencies are built.
