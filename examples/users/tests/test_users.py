"""The plugin of accounts, tested by pytest. $USERS_PLUGIN is the program, $USERS_CONFIG its users at the
start, and $CONFSIM the daemon that serves it."""
import errno
import json
import os
import stat

import pytest
from confsvc_test import Refused

pytest_plugins = ["confsvc_test.fixtures"]


@pytest.fixture
def accounts(tmp_path):
    return tmp_path / "accounts"


@pytest.fixture
def trace(tmp_path):
    return tmp_path / "trace.jsonl"


@pytest.fixture
def daemon(confsim, accounts, trace):
    session = confsim([os.environ["USERS_PLUGIN"], accounts], plugin="users",
                      config=os.environ["USERS_CONFIG"], trace=trace)
    yield session
    session.kickoff("users")


def role_of(daemon, name):
    return daemon.status("/demo-users:accounts").xpath(
        f"/demo-users:accounts/account[name='{name}']/role")


@pytest.mark.parametrize("name, role", [("ann", ["admin"]), ("bob", ["guest"]), ("eve", [])])
def test_accounts_at_the_start(daemon, name, role):
    assert role_of(daemon, name) == role


def test_change(daemon, accounts):
    eve = "/demo-users:users/user[name='eve']"
    daemon.set(f"{eve}/password", "$6$salt$third-hash")
    daemon.commit()
    assert "eve:$6$salt$third-hash:guest\n" in accounts.read_text()
    daemon.erase(eve)
    daemon.commit()
    assert role_of(daemon, "eve") == []
    assert stat.S_IMODE(accounts.stat().st_mode) == 0o600


def test_password_without_hash(daemon, trace):
    daemon.set("/demo-users:users/user[name='mallory']/password", "plain-text")
    with pytest.raises(Refused) as refused:
        daemon.commit()
    assert refused.value.result.code == errno.EINVAL
    assert "plain-text" not in refused.value.result.text
    daemon.discard()
    frames = [json.loads(line) for line in trace.read_text().splitlines()]
    assert [each["type"] for each in frames if each.get("code") == errno.EINVAL] == ["reply"]
    assert not any("plain-text" in str(each) for each in frames)


def test_restart(daemon):
    daemon.fault("users", "split", "20")
    daemon.restart(0.2)
    daemon.wait("users")
    assert role_of(daemon, "bob") == ["guest"]
