# Empty custom commands generated dependencies file for ContinuousBuild.
# This may be replaced when dependencies are built.
