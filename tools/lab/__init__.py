"""Test fixtures for the whole program: hosts in network namespaces, real processes on them, desktops, captures, and a
virtual machine. Used by the system tests and the benchmarks; `tools` must be on PYTHONPATH.
"""
