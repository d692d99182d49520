# Empty custom commands generated dependencies file for NightlyBuild.
# This may be replaced when dependencies are built.
