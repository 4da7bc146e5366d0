"""The bounds behind client libraries of paid text endpoints: one file for each library."""
