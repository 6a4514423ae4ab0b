"""Companion tools of Q5: field files to run directories (q5-import), finished
runs to pictures (q5-plot), and both around a run of q5 (q5-invert)."""
