"""The machine on which the companion's commands run."""
from collections.abc import Iterator

import pytest

from companion.tests.desk import Desk
from lab import paths
from lab.session import bare


@pytest.fixture(scope="module")
def desk() -> Iterator[Desk]:
    with bare(paths.COMPANION) as prefix:
        prefix.start()
        yield Desk(prefix)
