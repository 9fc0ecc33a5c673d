# The laboratory of each test.
import pytest
from lab import Lab


@pytest.fixture
def lab():
    with Lab() as laboratory:
        yield laboratory
