"""What one turn gave."""

from dataclasses import dataclass

GIB = 1 << 30


@dataclass
class Sample:
    """One turn. `seconds` until everything is in the store, `replied` until the last reply; processor seconds of the load,
    of what is measured, and of the store; `quantity` in the unit of the row's rate."""

    seconds: float
    replied: float
    quantity: float = 0
    client: float = 0
    service: float = 0
    store: float = 0
