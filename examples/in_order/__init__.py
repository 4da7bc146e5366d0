"""A turnstile in front of a bound: nobody is overtaken."""
