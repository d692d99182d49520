# Empty custom commands generated dependencies file for Nightly.
# This may be replaced when dependencies are built.
