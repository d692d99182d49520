# Empty custom commands generated dependencies file for ContinuousStart.
# This may be replaced when dependencies are built.
