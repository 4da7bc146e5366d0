"""Runnable examples of clients that bound what they pay."""
