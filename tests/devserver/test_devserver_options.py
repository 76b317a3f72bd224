"""Faults on the command line, the version and the access log."""

import os
import re
import subprocess
import sys
from typing import Any

import pytest
from devserver_client import Client, raw_exchange

import devserver
from devserver.faultoption import parse_option
from devserver.testing import DevServer, DevServerError

pytestmark = pytest.mark.process

LINE = re.compile(
    r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (?P<what>.*) \d+\.\d ms connection \d+(?P<fault>.*)"
)


@pytest.mark.parametrize(
    ("text", "endpoint", "script"),
    [
        ("verify=503", "verify", [{"kind": "status", "status": 503}]),
        ("verify=503x2", "verify", [{"kind": "status", "status": 503, "times": 2}]),
        ("verify=503xall", "verify", [{"kind": "status", "status": 503, "times": None}]),
        ("challenge=reset", "challenge", [{"kind": "reset"}]),
        ("*=holdxall", "*", [{"kind": "hold", "times": None}]),
        ("verify=delay:2.5x3", "verify", [{"kind": "delay", "seconds": 2.5, "times": 3}]),
        ("/auth/verify=era:7", "verify", [{"kind": "era", "value": 7}]),
        ("/x=redirect:http://a/?b=c", "/x", [{"kind": "redirect", "location": "http://a/?b=c"}]),
        ("verify=missing_key:token", "verify", [{"kind": "missing_key", "key": "token"}]),
        ("verify=not_utf8x2", "verify", [{"kind": "not_utf8", "times": 2}]),
        # A text stays a text even if it looks like a number.
        ("verify=missing_key:12", "verify", [{"kind": "missing_key", "key": "12"}]),
        ("verify=wrong_subject:null", "verify", [{"kind": "wrong_subject", "subject": None}]),
        (
            "connect=certificate:expiredx2",
            "connect",
            [{"kind": "certificate", "flaw": "expired", "times": 2}],
        ),
        ('verify={"kind": "reset"}', "verify", [{"kind": "reset"}]),
        ('verify=[{"kind": "reset"}, {"kind": "hold"}]', "verify", [{"kind": "reset"}, {"kind": "hold"}]),
    ],
)
def test_a_fault_in_words(text: str, endpoint: str, script: list[dict[str, Any]]) -> None:
    assert parse_option(text) == (endpoint, script)


@pytest.mark.parametrize(
    ("options", "complaint"),
    [
        (["verify"], "'verify' is not like ENDPOINT=FAULT"),
        (["=503"], "'=503' is not like"),
        (["verify="], "'verify=' is not like"),
        (["verify=503y2"], "'503y2' is neither a status nor KIND"),
        (["verify=50"], "'50' is neither"),
        (["verify=nonsense"], "there is no fault 'nonsense'; the kinds are: pass, delay"),
        (["verify=99999"], "'99999' is neither"),
        (["verify=100"], "fault 'status' cannot take this 'status': it must be a status from 200 to 599"),
        (["verify=delay"], "fault 'delay' needs seconds"),
        (["verify=delay:soon"], "cannot take this 'seconds': it must be a number of seconds"),
        (["verify=reset:1"], "fault 'reset' takes no value"),
        (["verify=resetx0"], "cannot take this 'times'"),
        (["register=era_old"], "fault 'era_old' is for the endpoint 'verify'"),
        (["verfy=503"], "'verfy' is none of: register, challenge, verify, display_name, connect, a path, "),
        (["verify={"], "'{' is not JSON"),
        (['verify={"kind": "reset", "times": 1.5}'], "cannot take this 'times'"),
        (["connect=stall"], "the endpoint 'connect' is there with --gate only"),
    ],
)
def test_a_wrong_fault_ends_it_with_one_sentence(options: list[str], complaint: str) -> None:
    command = [sys.executable, "-m", "devserver", *(f"--fault={option}" for option in options)]
    ended = subprocess.run(command, capture_output=True, text=True, timeout=20)
    assert ended.returncode == 2
    assert complaint in ended.stderr
    assert (ended.stdout, ended.stderr.count("\n")) == ("", 1)


def test_faults_of_the_command_line_meet_requests_in_their_order_and_again_after_a_reset() -> None:
    options = ["--fault=register=503x2", "--fault=register=reset", '--fault=connect={"kind": "stall"}']
    with DevServer(gate=True, options=options) as server:
        for _ in range(2):
            assert server.state()["faults"] == {
                "register": [{"kind": "status", "times": 2}, {"kind": "reset", "times": 1}],
                "connect": [{"kind": "stall", "times": 1}],
            }
            with Client(server) as client:
                assert [client.register().status for _ in range(2)] == [503, 503]
            assert raw_exchange(server) == (b"", "reset")
            server.reset()


def test_the_version() -> None:
    command = [sys.executable, "-m", "devserver", "--version"]
    told = subprocess.run(command, capture_output=True, text=True, timeout=20, check=True).stdout
    assert told == f"tessaline-devserver {devserver.__version__}\n"


@pytest.mark.parametrize("tls", [False, True])
def test_the_access_log_has_a_line_for_each_request(tls: bool) -> None:
    options = ["--access-log", "--fault=verify=503", "--fault=verify=close"]
    with DevServer(tls=tls, gate=True, options=options) as server, Client(server) as client:
        assert client.register().status == 200
        assert client.verify().status == 503
        with pytest.raises((OSError, EOFError)):
            client.verify()
        client.request("GET", f"/{'x' * 300}?token=abc")
        server.state()
        server.stop()
        first, *lines = server.stderr.splitlines()
        trusted = f"; clients trust it with {server.ca_file}" if tls else ""
        assert first == f"serving {server.url} and, behind the gate, {server.gate_url}{trusted}"
    told = [LINE.fullmatch(line) for line in lines]
    assert [(line["what"], line["fault"]) for line in told if line is not None] == [
        ("POST /auth/register 200", ""),
        ("POST /auth/challenge 200", ""),
        ("POST /auth/verify 503", " fault status"),
        ("POST /auth/challenge 200", ""),
        ("POST /auth/verify -", " fault close"),
        (f"GET /{'x' * 199}... 404", ""),
        ("GET /_control/state 200", ""),
    ]


def test_a_log_that_nobody_reads_ends_nothing() -> None:
    reading, writing = os.pipe()
    os.close(reading)
    command = [sys.executable, "-m", "devserver", "--access-log", "--exit-with-stdin"]
    ended = subprocess.run(
        command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=writing, timeout=20
    )
    os.close(writing)
    assert ended.stdout.startswith(b'{"url"')
    assert ended.returncode == 0


def test_errors_of_the_helper_carry_the_sentence() -> None:
    with pytest.raises(DevServerError, match="verfy"):
        DevServer(options=["--fault=verfy=503"]).start()
