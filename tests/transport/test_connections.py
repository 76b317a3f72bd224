"""Connections: reused by any thread, never by a forked child, and replaced when the server closes them."""

from __future__ import annotations

import http.client
import threading
from collections.abc import Callable
from pathlib import Path

import pytest

from devserver.testing import DevServer
from integration.support import descriptors
from tests.shared.threads import Worker, until

from .programs import FORKING, told_by
from .raw import CLOSE, OK, RawServer, reset
from .reference import echoed, failure, transport

Raw = Callable[..., RawServer]


def connections(server: DevServer) -> int:
    accepted: int = server.state()["connections"]["accepted"]
    return accepted


class TestReuse:
    def test_a_connection_is_used_again(self, either: DevServer) -> None:
        transport("GET", either.url + "/_echo")
        either.reset()
        for _ in range(10):
            assert transport("GET", either.url + "/_echo")[0] == 200
        assert connections(either) == 0
        assert len({entry["connection"] for entry in either.requests}) == 1

    def test_other_threads_use_it_too(self, either: DevServer) -> None:
        transport("GET", either.url + "/_echo")
        either.reset()
        for _ in range(10):
            assert Worker(transport, "POST", either.url + "/_echo", {}, "{}").result()[0] == 200
        assert connections(either) == 0

    def test_threads_at_the_same_time_have_one_each(self, either: DevServer) -> None:
        def crowd() -> None:
            either.reset()
            either.faults("/_echo/held", [{"kind": "hold", "times": None}])
            held = [Worker(transport, "GET", either.url + "/_echo/held") for _ in range(8)]
            either.wait_for("/_echo/held", 8)
            either.release()
            for worker in held:
                assert worker.result()[0] == 200
            assert len({entry["connection"] for entry in either.requests}) == 8

        crowd()
        crowd()
        assert connections(either) == 0

    def test_answers_do_not_get_mixed_up(self, either: DevServer) -> None:
        def ask(which: int) -> None:
            for lap in range(25):
                path = f"/_echo/{which}/{lap}"
                seen = echoed(transport("POST", either.url + path, {"X-Which": str(which)}, f"{which}-{lap}"))
                assert (seen["path"], seen["body"]) == (path, f"{which}-{lap}".encode())

        for worker in [Worker(ask, which) for which in range(8)]:
            worker.result()

    def test_an_error_status_keeps_the_connection(self, either: DevServer) -> None:
        transport("GET", either.url + "/_echo")
        either.reset()
        for status in (404, 500, 302, 204):
            either.faults("/_echo", [{"kind": "status", "status": status}])
            assert transport("GET", either.url + "/_echo")[0] == status
        assert connections(either) == 0

    def test_a_connection_that_ends_after_its_answer_is_not_missed(self, either: DevServer) -> None:
        for _ in range(5):
            either.faults("/_echo", [{"kind": "close_after"}])
            assert transport("POST", either.url + "/_echo", {}, "{}")[0] == 200
            assert transport("POST", either.url + "/_echo", {}, "{}")[0] == 200

    def test_a_kept_connection_that_breaks_is_replaced_once(self, raw: Raw) -> None:
        server = raw(OK, CLOSE, OK, keep_alive=True)
        assert transport("POST", server.url, {}, "first")[0] == 200
        assert transport("POST", server.url, {}, "second")[0] == 200
        assert [server.body(which) for which in range(3)] == [b"first", b"second", b"second"]
        assert server.connections == 2

    def test_how_a_connection_broke_is_not_said_of_the_one_that_replaced_it(self, raw: Raw) -> None:
        garbled = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nno number\r\n"
        server = raw(OK, reset, garbled, keep_alive=True)
        transport("POST", server.url, {}, "first")
        assert isinstance(failure("POST", server.url, {}, "second"), http.client.BadStatusLine)
        assert (len(server.requests), server.connections) == (3, 2)

    def test_a_fresh_connection_that_breaks_is_not_replaced(self, raw: Raw) -> None:
        server = raw(OK, CLOSE, CLOSE, OK, keep_alive=True)
        transport("POST", server.url, {}, "first")
        assert isinstance(failure("POST", server.url, {}, "second"), ConnectionError)
        assert len(server.requests) == 3
        assert server.connections == 2

    def test_two_bytes_are_no_answer_yet(self, raw: Raw) -> None:
        server = raw(OK, lambda connection, _: connection.sendall(b"HT"), OK, keep_alive=True)
        assert transport("POST", server.url, {}, "first")[0] == 200
        assert transport("POST", server.url, {}, "second")[0] == 200
        assert (len(server.requests), server.connections) == (3, 2)

    @pytest.mark.parametrize("more", [b"", b"Content-Length: 9\r\n\r\nabc"], ids=["line", "head"])
    def test_an_answer_that_has_begun_is_not_asked_for_again(self, more: bytes, raw: Raw) -> None:
        begun = b"HTTP/1.1 200 OK\r\n" + more
        broken = raw(OK, lambda connection, _: connection.sendall(begun), OK, keep_alive=True)
        transport("POST", broken.url, {}, "first")
        assert isinstance(failure("POST", broken.url, {}, "second"), ConnectionError)
        assert len(broken.requests) == 2

    def test_the_server_may_ask_to_close(self, raw: Raw) -> None:
        server = raw(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n", keep_alive=True)
        transport("GET", server.url)
        transport("GET", server.url)
        assert server.connections == 2


class TestFork:
    def test_a_child_opens_its_own_connection(self, either: DevServer) -> None:
        told = told_by(
            """
            (url,) = arguments
            def ask():
                return auth._default_http_transport("GET", url + "/_echo")[0]

            print(json.dumps([ask(), code_of_child(lambda: (ask(), ask()) == (200, 200)), ask()]))
            """,
            either.url,
            helpers=FORKING,
        )
        assert told == [200, 0, 200]
        assert connections(either) == 2
        first, second, third, fourth = (entry["connection"] for entry in either.requests)
        assert first == fourth
        assert second == third != first

    def test_a_child_of_a_process_that_is_in_a_request(self, either: DevServer) -> None:
        either.faults("/_echo/held", [{"kind": "hold"}])
        told = told_by(
            """
            (url,) = arguments
            answered = []
            held = threading.Thread(
                target=lambda: answered.append(auth._default_http_transport("GET", url + "/_echo/held")[0])
            )
            held.start()
            import http.client, ssl, urllib.parse
            address = urllib.parse.urlsplit(url)
            def control(name, body):
                if address.scheme == "https":
                    there = http.client.HTTPSConnection(address.netloc, context=ssl.create_default_context())
                else:
                    there = http.client.HTTPConnection(address.netloc)
                headers = {"Content-Type": "application/json"}
                there.request("POST", "/_control/" + name, json.dumps(body), headers)
                there.getresponse().read()
                there.close()
            control("wait", {"endpoint": "/_echo/held", "count": 1, "timeout": 20})
            code = code_of_child(lambda: auth._default_http_transport("GET", url + "/_echo/child")[0] == 200)
            control("release", {})
            held.join(20)
            print(json.dumps([code, answered]))
            """,
            either.url,
            helpers=FORKING,
        )
        assert told == [0, [200]]
        paths = {entry["path"]: entry["connection"] for entry in either.requests}
        assert paths["/_echo/held"] != paths["/_echo/child"]

    def test_a_manager_goes_on_in_a_child(self, either: DevServer) -> None:
        told = told_by(
            """
            (url,) = arguments
            manager = auth.AuthManager("44" * 32, url)
            manager.authenticate()
            def log_in_and_close():
                manager.authenticate()
                manager.close()
                return True
            code = code_of_child(log_in_and_close)
            manager.authenticate()
            manager.close()
            print(json.dumps(code))
            """,
            either.url,
            helpers=FORKING,
        )
        assert told == 0
        assert connections(either) == 2


class TestInterrupts:
    def test_a_hanging_request_ends_within_a_second(self, either: DevServer) -> None:
        either.faults("/_echo/held", [{"kind": "hold"}])
        kind, seconds, again = told_by(
            """
            (url,) = arguments
            marks = []
            def note(number, frame):
                marks.append(time.monotonic())
                signal.default_int_handler(number, frame)
            signal.signal(signal.SIGINT, note)
            try:
                auth._default_http_transport("GET", url + "/_echo/held")
            except BaseException as error:
                ended = time.monotonic()
                kind = type(error).__name__
            again = auth._default_http_transport("GET", url + "/_echo")[0]
            print(json.dumps([kind, ended - marks[0], again]))
            """,
            either.url,
            interrupt_at=(either, "/_echo/held"),
        )
        assert (kind, again) == ("KeyboardInterrupt", 200)
        assert seconds < 1.0

    def test_the_signal_is_heeded_within_a_second(self, server: DevServer) -> None:
        server.faults("/_echo/held", [{"kind": "hold"}])
        waited = told_by(
            """
            (url,) = arguments
            import http.client, urllib.parse
            def interrupt():
                there = http.client.HTTPConnection(urllib.parse.urlsplit(url).netloc)
                body = json.dumps({"endpoint": "/_echo/held", "count": 1, "timeout": 20})
                there.request("POST", "/_control/wait", body, {"Content-Type": "application/json"})
                there.getresponse().read()
                marks.append(time.monotonic())
                os.kill(os.getpid(), 2)
            marks = []
            threading.Thread(target=interrupt).start()
            try:
                auth._default_http_transport("GET", url + "/_echo/held")
            except KeyboardInterrupt:
                print(json.dumps(time.monotonic() - marks[0]))
            """,
            server.url,
        )
        assert waited < 1.0

    def test_a_handler_that_returns_lets_the_request_go_on(self, server: DevServer) -> None:
        server.faults("/_echo/held", [{"kind": "delay", "seconds": 0.6}])
        told = told_by(
            """
            (url,) = arguments
            heard = []
            signal.signal(signal.SIGINT, lambda *_: heard.append("heard"))
            status = auth._default_http_transport("GET", url + "/_echo/held")[0]
            print(json.dumps([heard, status]))
            """,
            server.url,
            interrupt_at=(server, "/_echo/held"),
        )
        assert told == [["heard"], 200]

    def test_the_error_of_a_handler_comes_out(self, server: DevServer) -> None:
        server.faults("/_echo/held", [{"kind": "hold"}])
        told = told_by(
            """
            (url,) = arguments
            def stop(*_):
                raise LookupError("from the handler")
            signal.signal(signal.SIGINT, stop)
            try:
                auth._default_http_transport("GET", url + "/_echo/held")
            except LookupError as error:
                print(json.dumps(str(error)))
            """,
            server.url,
            interrupt_at=(server, "/_echo/held"),
        )
        assert told == "from the handler"

    def test_an_interrupted_login_wakes_those_who_wait_for_it(self, either: DevServer) -> None:
        either.faults("challenge", [{"kind": "hold"}])
        told = told_by(
            """
            (url,) = arguments
            manager = auth.AuthManager("55" * 32, url)
            heard = []
            def wait_for_it():
                while manager._auth_event is None:
                    time.sleep(0.001)
                try:
                    manager.authenticate()
                except auth.AuthError as error:
                    heard.append(error.reason)
            waiter = threading.Thread(target=wait_for_it)
            waiter.start()
            try:
                manager.authenticate()
            except KeyboardInterrupt:
                heard.append("interrupted")
            waiter.join(20)
            state = manager._state
            manager.authenticate()
            manager.close()
            print(json.dumps([sorted(heard), waiter.is_alive(), state]))
            """,
            either.url,
            interrupt_at=(either, "challenge"),
        )
        assert told == [["", "interrupted"], False, "UNINITIALIZED"]


class TestGil:
    def test_other_threads_run_while_a_request_waits(self, either: DevServer) -> None:
        either.faults("/_echo/held", [{"kind": "hold"}])
        held = Worker(transport, "GET", either.url + "/_echo/held")
        either.wait_for("/_echo/held", 1)
        laps = [0]

        def count() -> None:
            for _ in range(100_000):
                laps[0] += 1

        Worker(count).result()
        assert laps == [100_000]
        assert held.ended_at is None
        either.release()
        assert held.result()[0] == 200

    def test_other_threads_run_while_the_main_thread_waits(self, either: DevServer) -> None:
        assert threading.current_thread() is threading.main_thread()
        either.faults("/_echo/held", [{"kind": "hold"}])
        laps = [0]

        def count_and_release() -> None:
            either.wait_for("/_echo/held", 1)
            for _ in range(100_000):
                laps[0] += 1
            either.release()

        other = Worker(count_and_release)
        assert transport("GET", either.url + "/_echo/held")[0] == 200
        other.result()
        assert laps == [100_000]


class TestIdle:
    def test_one_thread_sees_to_what_is_idle(self, server: DevServer) -> None:
        def watching() -> set[str]:
            tasks = Path("/proc/self/task").iterdir()
            return {task.name for task in tasks if (task / "comm").read_text() == "tessaline-idle\n"}

        seen = set()
        for _ in range(50):
            transport("GET", server.url + "/_echo")
            seen |= watching()
        assert len(seen) == 1


class TestDescriptors:
    def test_two_hundred_requests(self, either: DevServer) -> None:
        transport("GET", either.url + "/_echo")
        before = descriptors()
        for lap in range(200):
            transport("POST", either.url + f"/_echo/{lap}", {}, "{}")
        assert descriptors() == before

    def test_two_hundred_requests_that_break(self, either: DevServer) -> None:
        either.faults("/_echo", [{"kind": "reset", "times": None}])
        either.faults("/_echo/cut", [{"kind": "cut_body", "times": None}])
        for path in ("/_echo", "/_echo/cut"):
            failure("GET", either.url + path)
        before = descriptors()
        for lap in range(200):
            path = ("/_echo", "/_echo/cut")[lap % 2]
            assert isinstance(failure("GET", either.url + path), ConnectionError)
        assert descriptors() <= before

    def test_requests_that_nobody_takes(self, unused_port: int) -> None:
        failure("GET", f"http://127.0.0.1:{unused_port}")
        before = descriptors()
        for _ in range(200):
            assert type(failure("GET", f"http://127.0.0.1:{unused_port}")) is ConnectionRefusedError
        assert descriptors() == before

    def test_certificates_that_are_refused(
        self, https_server: DevServer, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.delenv("SSL_CERT_FILE", raising=False)
        failure("GET", https_server.url)
        before = descriptors()
        for _ in range(50):
            failure("GET", https_server.url)
        assert descriptors() <= before

    def test_many_threads_keep_a_bounded_number(self, server: DevServer) -> None:
        def crowd() -> None:
            already = server.state()["counts"].get("/_echo/held", 0)
            server.faults("/_echo/held", [{"kind": "hold", "times": None}])
            workers = [Worker(transport, "GET", server.url + "/_echo/held") for _ in range(48)]
            server.wait_for("/_echo/held", already + 48)
            server.release()
            for worker in workers:
                assert worker.result()[0] == 200

        crowd()
        before = descriptors()
        for _ in range(3):
            crowd()
        assert descriptors() <= before

    def test_many_servers_keep_a_bounded_number(self, raw: Raw) -> None:
        servers = [raw(keep_alive=True) for _ in range(12)]
        for server in servers:
            transport("GET", server.url)
        before = descriptors()
        for _ in range(3):
            for server in servers:
                assert transport("GET", server.url)[0] == 200
        until(lambda: descriptors() <= before + 2, "descriptors of dropped connections are gone")
