# Empty custom commands generated dependencies file for NightlyUpdate.
# This may be replaced when dependencies are built.
