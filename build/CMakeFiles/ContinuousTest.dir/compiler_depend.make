# Empty custom commands generated dependencies file for ContinuousTest.
# This may be replaced when dependencies are built.
