"""One daily cap for many processes, on one machine or on many."""
