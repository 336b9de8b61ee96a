"""What `bench_days.py` measures, one idea per file."""
