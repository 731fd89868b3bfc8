"""Access-control policy from Python: libplx through ctypes, with nothing to build.

    import plx

    with plx.Application("edge", store="unix:/run/plx-store/store.sock") as app:
        app.wait_for_nodes(1)
        app.set_acl(1)
        app.set_apply(1, port=49)
        app.set_ace(1, 10, match={"ipv4_src": "192.0.2.0/24"}, action={"fwd": "deny"})
        for outcome in app.outcomes():
            print(outcome)

One thread only: the library runs on the application's own loop. Either let outcomes() run that loop, or hand it to
asyncio with attach(); then await what set_ace and set_apply return. What the library refuses raises plx.Error. The names
and values of attributes are those of a policy file, plx-attributes(7); bytes are pushed as they are.

A process has one library, and so at most one Application at a time.
"""
import asyncio
import ctypes
import dataclasses
import time

from . import _c, values
from ._c import Error

__all__ = ["Application", "Error", "Outcome", "Pending"]


@dataclasses.dataclass(frozen=True)
class Outcome:
    """What became of one write. `status` is 0 when all service nodes have confirmed it (or none had refused when it
    aged), else a node's status, the store's result, or the library's; `text` says it in words."""
    kind: str  # "ace" or "apply"
    acl: int
    sn: int | None  # of an entry
    port: int | None  # of an apply
    status: int

    @property
    def ok(self):
        return self.status == 0

    @property
    def text(self):
        return _c.status_text(self.status)

    def __str__(self):
        what = f"entry {self.sn}" if self.kind == "ace" else f"port {self.port}"
        return f"acl {self.acl} {what}: {self.text}"


class Pending:
    """A write whose outcome is to come. Done when `outcome` is not None; can be awaited on an attached application."""

    def __init__(self, application, key):
        self.key, self.outcome, self._application, self._future = key, None, application, None

    def _end(self, outcome):
        self.outcome = outcome
        if self._future is not None and not self._future.done():
            self._future.set_result(outcome)

    def __await__(self):
        if self.outcome is None:
            if self._application._loop is None:
                raise RuntimeError("attach() the application to the running loop first")
            self._future = self._application._loop.create_future()
            yield from self._future
        return self.outcome


class Application:
    """One application type, registered at a store. Close it, or use it as a context manager."""

    def __init__(self, app_type, store=None, db=8):
        """`store` is an address as PLX_STORE has it, which is taken when it is None."""
        self._type = app_type.encode()
        if not 0 < len(self._type) < _c.APP_TYPE_SIZE or b"\0" in self._type:
            raise ValueError(f"an application type has 1 to {_c.APP_TYPE_SIZE - 1} bytes")
        self._lib = _c.library()
        self._pending, self._fresh, self._loop, self._timer, self._direct = {}, [], None, None, None
        self._context = self._lib.context_new(store)
        self._callbacks = _c.Callbacks(self._on_acl_failed, self._on_ace, self._on_apply)
        try:
            self._mgr = self._lib.register(self._context, self._type, db, self._callbacks)
        except Error:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Leaves the store; what was written stays there. The library remembers its callbacks as long as it is loaded,
        so they live on as well."""
        self.detach()
        if self._context:
            _c.kept.append(self._callbacks)
            self._lib.context_free(self._context)
            self._context = None

    # ---- policy

    def set_acl(self, acl, cls=0, priv=b""):
        self._direct = None
        result = self._mgr.set_acl(self._context, ctypes.byref(_c.Acl(self._type, acl, cls, _c.priv(priv))))
        _c.check(self._direct or result, f"acl {acl}")

    def del_acl(self, acl):
        _c.check(self._mgr.del_acl(self._context, self._key(acl)), f"acl {acl}")

    def set_ace(self, acl, sn, match=None, action=None, control=None, priority=0, default=False, priv=b""):
        """Writes an entry. Returns a Pending; a refusal at once is its outcome."""
        ace = self._mgr.alloc_ace(sn, default)
        if not ace:
            raise MemoryError
        try:
            ace.contents.ace_pri, ace.contents.priv = priority, _c.priv(priv)
            for cls, pairs in ((0, control), (1, match), (2, action)):
                for name, value in (pairs or {}).items():
                    self._lib.push(ace.contents, cls, name, values.pack(cls, name, value))
            return self._write(("ace", acl, sn), lambda: self._mgr.set_ace(self._context, self._key(acl), ace))
        finally:
            self._mgr.free_ace(ace)

    def del_ace(self, acl, sn):
        self._pending.pop(("ace", acl, sn), None)
        _c.check(self._mgr.delete_ace(self._context, self._key(acl), sn), f"acl {acl} entry {sn}")

    def set_apply(self, acl, port, priority=0, direction="in", cls=0, priv=b""):
        """Binds an ACL to a port, "in" or "out". One ACL in both directions of a port needs two priorities."""
        apply, info = self._apply(acl, port, priority, direction)
        try:
            apply.contents.priv = _c.priv(priv)
            return self._write(("apply", acl, port, priority),
                               lambda: self._mgr.set_apply(self._context, info, cls, apply))
        finally:
            self._mgr.free_apply(apply)

    def del_apply(self, acl, port, priority=0, direction="in"):
        self._pending.pop(("apply", acl, port, priority), None)
        apply, info = self._apply(acl, port, priority, direction)
        try:
            _c.check(self._mgr.del_apply(self._context, info, apply), f"acl {acl} on port {port}")
        finally:
            self._mgr.free_apply(apply)

    # ---- outcomes

    def wait_for_nodes(self, count, timeout=10.0):
        """Runs the loop until so many service nodes are known. Raises TimeoutError."""
        self._run(lambda: self._lib.nodes() >= count, timeout)
        if self._lib.nodes() < count:
            raise TimeoutError(f"{self._lib.nodes()} of {count} service nodes are alive")

    def outcomes(self, timeout=10.0):
        """Yields outcomes as they come, those of refused writes included, until nothing is pending. Raises TimeoutError
        when none came for `timeout` seconds."""
        while self._fresh or self._pending:
            self._run(lambda: self._fresh, timeout)
            if not self._fresh:
                raise TimeoutError(f"{len(self._pending)} outcomes are open")
            yield self._fresh.pop(0)

    def attach(self):
        """Runs on the running asyncio loop from now on."""
        self._loop = asyncio.get_running_loop()
        self._loop.add_reader(self._lib.loop_fd(self._context), self._turn)
        self._turn()

    def detach(self):
        if self._loop is not None:
            self._loop.remove_reader(self._lib.loop_fd(self._context))
            self._timer.cancel()
            self._loop = self._timer = None

    # ---- inside

    def _turn(self):
        self._lib.run_once(self._context, 0)
        left = self._lib.loop_timeout(self._context)
        if self._timer is not None:
            self._timer.cancel()
        self._timer = self._loop.call_later(3600 if left < 0 else left / 1000, self._turn)

    def _run(self, done, timeout):
        end = time.monotonic() + timeout
        while not done():
            left = end - time.monotonic()
            if left <= 0:
                return
            self._lib.run_once(self._context, int(min(left, 1) * 1000) + 1)

    def _key(self, acl):
        return ctypes.byref(_c.AclKey(self._type, acl))

    def _apply(self, acl, port, priority, direction):
        key = _c.ApplyKey(self._type, port, priority, ("in", "out").index(direction))
        apply = self._mgr.alloc_apply(ctypes.byref(key))
        if not apply:
            raise MemoryError
        return apply, ctypes.byref(_c.AclInfo(app_type=self._type, acl_id=acl))

    def _write(self, key, write):
        pending = self._pending[key] = Pending(self, key)
        result = write()
        if result != 0 and pending.outcome is None:
            self._end(key, result)
        if self._loop is not None:
            self._loop.call_soon(self._turn)
        return pending

    def _on_acl_failed(self, result):
        self._direct = result
        return result

    def _on_ace(self, acl, sn, status):
        return self._end(("ace", acl, sn), status)

    def _on_apply(self, acl, port, priority, status):
        return self._end(("apply", acl, port, priority), status)

    def _end(self, key, status):
        pending = self._pending.pop(key, None)
        if pending is not None:
            kind, acl, number = key[:3]
            outcome = Outcome(kind, acl, number if kind == "ace" else None, number if kind == "apply" else None, status)
            pending._end(outcome)
            if self._loop is None:
                self._fresh.append(outcome)
        return status
