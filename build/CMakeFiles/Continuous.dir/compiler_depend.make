# Empty custom commands generated dependencies file for Continuous.
# This may be replaced when dependencies are built.
