"""How often a proof repeats what it proves."""

import os


def proof_count(full: int) -> int:
    """`full` when ZARN_PROOF_FULL=1 (scripts/soak --proofs sets it), else a twentieth of it, at least 1."""
    return full if os.environ.get("ZARN_PROOF_FULL") == "1" else max(1, full // 20)
