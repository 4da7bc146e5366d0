"""A decision client that runs a batch pass and stays within its bounds while it does."""
