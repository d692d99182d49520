# Empty custom commands generated dependencies file for ExperimentalTest.
# This may be replaced when dependencies are built.
