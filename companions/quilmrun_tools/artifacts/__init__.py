"""Every file that passes between programs: its dataclass, its reader and its writer together."""
