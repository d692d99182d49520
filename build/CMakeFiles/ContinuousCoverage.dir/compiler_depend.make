# Empty custom commands generated dependencies file for ContinuousCoverage.
# This may be replaced when dependencies are built.
