"""How much is measured: everything, or a quick run."""
from __future__ import annotations

import dataclasses

MIB = 1 << 20
MB = 1_000_000


@dataclasses.dataclass(frozen=True)
class Settings:
    pairs: int            # for long runs
    short_pairs: int      # for runs of less than a second
    download: int         # bytes of the download that measures http
    secure_download: int  # the same for https
    memory: tuple[int, ...]      # downloads whose peak memory is compared, ascending
    packages: tuple[int, ...]    # driver packages on the machine, ascending: the last number is compared with the floor, three show the growth
    inf_sizes: tuple[tuple[int, int], ...]  # bytes of an INF, and the number of pairs with it
    idle_seconds: int     # for the status window


FULL = Settings(pairs=11, short_pairs=21, download=1024 * MIB, secure_download=1024 * MIB,
                memory=(64 * MIB, 1024 * MIB, 5000 * MB), packages=(10, 100, 200),
                inf_sizes=((200_000, 11), (2_000_000, 11)), idle_seconds=60)
QUICK = Settings(pairs=3, short_pairs=5, download=256 * MIB, secure_download=64 * MIB,
                 memory=(64 * MIB, 512 * MIB), packages=(10, 50), inf_sizes=((200_000, 1),), idle_seconds=10)
