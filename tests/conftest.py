import pytest

from support import Reply


@pytest.fixture
def reply():
    return Reply
