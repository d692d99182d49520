# Empty custom commands generated dependencies file for NightlyConfigure.
# This may be replaced when dependencies are built.
