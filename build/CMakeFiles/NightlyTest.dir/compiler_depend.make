# Empty custom commands generated dependencies file for NightlyTest.
# This may be replaced when dependencies are built.
