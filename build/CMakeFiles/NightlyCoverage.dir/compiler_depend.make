# Empty custom commands generated dependencies file for NightlyCoverage.
# This may be replaced when dependencies are built.
