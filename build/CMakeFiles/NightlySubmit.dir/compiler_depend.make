# Empty custom commands generated dependencies file for NightlySubmit.
# This may be replaced when dependencies are built.
