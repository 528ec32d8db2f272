"""A laboratory for the whole program: hosts on networks of their own, real processes on them, desktops, captures, and a
virtual machine. The tests and the benchmarks of the whole program use it; `tools` must be on PYTHONPATH.
"""
