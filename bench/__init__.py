"""What the bounds cost, beside the same surface in plain Python and beside the floor."""
