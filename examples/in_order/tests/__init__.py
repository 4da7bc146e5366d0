"""Tests of the bounds with a turnstile in front."""
