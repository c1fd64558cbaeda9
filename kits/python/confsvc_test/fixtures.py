"""The fixture for pytest: `confsim` makes sessions, and ends them after the test.

    def test_greeting(confsim):
        daemon = confsim(["./hello"], plugin="hello")
        daemon.set("/hello:settings/greeting", "Hi")
        daemon.commit()

A plugin that ends badly at the end of a session is an error of the test.
"""
import contextlib

import pytest

from . import Session


@pytest.fixture
def confsim():
    with contextlib.ExitStack() as sessions:
        yield lambda *given, **named: sessions.enter_context(Session(*given, **named))
