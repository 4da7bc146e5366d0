"""Guards of what is spent that others have published, beside the bounds."""
