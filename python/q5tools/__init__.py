"""Companion tools of Q5: field files to run directories (q5-import), finished
runs to pictures (q5-plot), both around a run of q5 (q5-invert), and the
datasets of one run across cores or a cluster (q5-batch)."""
