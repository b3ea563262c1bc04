"""Engines of the decision client; ``engines.decision_bounds`` is the native bounds module."""
