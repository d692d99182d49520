# Empty custom commands generated dependencies file for ContinuousUpdate.
# This may be replaced when dependencies are built.
