"""Lets every call into Windows that the tool makes on a set of machines fail once, and judges the run."""
