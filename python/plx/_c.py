"""The C interface, as far as the module uses it: the structures of <plx/types.h>, the operations of <plx/manager.h>."""
import ctypes
from ctypes import (CFUNCTYPE, POINTER, Structure, c_char, c_char_p, c_int, c_int32, c_size_t, c_uint8, c_uint16,
                    c_uint32, c_uint64, c_void_p)

APP_TYPE_SIZE = 32
PRIV_SIZE = 32
Name = c_char * APP_TYPE_SIZE
Priv = c_uint8 * PRIV_SIZE

kept = []  # what the library may call as long as it is loaded
_library = None


class Error(Exception):
    """The library or the store refused: `status` and what it means."""

    def __init__(self, status, what):
        super().__init__(f"{what}: {status_text(status)}")
        self.status = status


class AclKey(Structure):
    _fields_ = [("app_type", Name), ("acl_id", c_uint32)]


class Acl(Structure):
    _fields_ = [("app_type", Name), ("acl_id", c_uint32), ("acl_cls", c_uint8), ("priv", Priv)]


class AclInfo(Structure):
    _fields_ = [("app_type", Name), ("acl_id", c_uint32), ("stat", c_int32), ("uuid", c_uint64), ("priv", Priv)]


class ApplyKey(Structure):
    _fields_ = [("apply_type", Name), ("phyid", c_uint32), ("priority", c_uint32), ("direction", c_uint32)]


class Apply(Structure):
    _fields_ = ApplyKey._fields_ + [("priv", Priv), ("tlv", c_void_p)]


class ApplyInfo(Structure):
    _fields_ = [("apply_type", Name), ("phyid", c_uint32), ("pri", c_uint32), ("dir", c_uint32), ("stat", c_int32),
                ("value_pri", c_uint32), ("uuid", c_uint64), ("priv", Priv), ("req_count", c_uint8),
                ("is_req", c_uint8)]


class Ace(Structure):
    _fields_ = [("sn", c_uint64), ("default_ace", c_uint8), ("priv", Priv), ("ace_pri", c_uint64), ("tlv", c_void_p)]


class Attr(Structure):
    _fields_ = [("name", c_char * 20), ("cls", c_uint32), ("len", c_int32), ("value", c_uint8 * 240)]


class AttrEntry(Structure):
    _fields_ = [("name", c_char * 20), ("id", c_uint32)]


class Tlv(Structure):
    _fields_ = [("construct", c_void_p), ("push", CFUNCTYPE(None, POINTER(c_void_p), Attr)), ("len", c_uint16)]


AclFailed = CFUNCTYPE(c_int32, c_void_p, POINTER(Acl), c_int32, c_void_p)
AceOk = CFUNCTYPE(c_int32, c_void_p, POINTER(AclInfo), c_uint64, c_void_p)
AceFailed = CFUNCTYPE(c_int32, c_void_p, POINTER(AclInfo), c_uint64, c_int32, c_void_p)
ApplyOk = CFUNCTYPE(c_int32, c_void_p, POINTER(AclInfo), POINTER(ApplyInfo), c_void_p)
ApplyFailed = CFUNCTYPE(c_int32, c_void_p, POINTER(AclInfo), POINTER(ApplyInfo), c_int32, c_void_p)


class Handler(Structure):
    _fields_ = [("set_acl_ok", c_void_p), ("set_acl_fail", AclFailed), ("ace_ok", AceOk), ("ace_fail", AceFailed),
                ("apply_ok", ApplyOk), ("apply_fail", ApplyFailed), ("others", c_void_p * 11)]


class Callbacks:
    """The handler table, and the functions behind it, which must outlive it."""

    def __init__(self, acl_failed, on_ace, on_apply):
        self.handler = Handler(
            set_acl_fail=AclFailed(lambda _, acl, result, priv: acl_failed(result)),
            ace_ok=AceOk(lambda _, acl, sn, priv: on_ace(acl[0].acl_id, sn, 0)),
            ace_fail=AceFailed(lambda _, acl, sn, status, priv: on_ace(acl[0].acl_id, sn, status)),
            apply_ok=ApplyOk(lambda _, acl, apply, priv: on_apply(acl[0].acl_id, apply[0].phyid, apply[0].value_pri, 0)),
            apply_fail=ApplyFailed(
                lambda _, acl, apply, status, priv: on_apply(acl[0].acl_id, apply[0].phyid, apply[0].value_pri, status)))


def _slot(result, *arguments):
    return CFUNCTYPE(result, *arguments)


class Manager(Structure):
    """The 35 slots; those that the module does not call are plain pointers."""
    _fields_ = [
        ("set_acl", _slot(c_int32, c_void_p, POINTER(Acl))), ("del_acl", _slot(c_int32, c_void_p, POINTER(AclKey))),
        ("to_5", c_void_p * 4),
        ("set_ace", _slot(c_int32, c_void_p, POINTER(AclKey), POINTER(Ace))),
        ("delete_ace", _slot(c_int32, c_void_p, POINTER(AclKey), c_uint64)), ("to_9", c_void_p * 2),
        ("alloc_ace", _slot(POINTER(Ace), c_uint64, c_uint8)), ("free_ace", _slot(None, POINTER(Ace))),
        ("to_13", c_void_p * 2),
        ("set_apply", _slot(c_int32, c_void_p, POINTER(AclInfo), c_uint32, POINTER(Apply))),
        ("del_apply", _slot(c_int32, c_void_p, POINTER(AclInfo), POINTER(Apply))), ("to_17", c_void_p * 2),
        ("alloc_apply", _slot(POINTER(Apply), POINTER(ApplyKey))), ("free_apply", _slot(None, POINTER(Apply))),
        ("to_34", c_void_p * 15)]


class Context(Structure):
    _fields_ = [("mom", c_void_p), ("master", c_void_p)]


class Service(Structure):
    _fields_ = [("next", c_void_p), ("prev", c_void_p), ("count", c_int32)]


def priv(data):
    """The application's own 32 bytes"""
    if len(data) > PRIV_SIZE:
        raise ValueError(f"at most {PRIV_SIZE} private bytes")
    return Priv(*data)


def check(status, what):
    if status != 0:
        raise Error(status, what)


def status_text(status):
    """Who refused shows in the number: the library, the store, or a service node."""
    nodes = ("table full", "unsupported attribute", "malformed attributes", "attribute value of wrong size",
             "refused by configuration", "number out of range", "contradiction in the entry", "not permitted",
             "error of the plane", "no interface")
    library = {-1: "refused", -2: "out of memory", -4: "invalid argument", -5: "no record", -7: "not found",
               -11: "the store could not be read", -17: "topic refused"}
    if status == 0:
        return "ok"
    if status < 0:
        return library.get(status, f"unknown result {status}")
    if status > 100:
        return nodes[status - 101] if status - 101 < len(nodes) else f"unknown status {status}"
    return _library.store_text(status) if _library else f"store result {status}"


class Library:
    def __init__(self):
        self._plx = ctypes.CDLL("libplx.so.1", use_errno=True, mode=ctypes.RTLD_GLOBAL)
        everything = self._plx  # a look-up in it finds what it was linked with, too
        self._declare(everything, "tq_context_new", POINTER(Context), c_char_p)
        self._declare(everything, "tq_context_free", None, POINTER(Context))
        self._declare(everything, "tq_mom_strerror", c_char_p, c_int)
        self._declare(everything, "fp_udp_get_mgr", POINTER(Manager))
        self._declare(everything, "fp_udp_register_app_type", c_int32, c_char_p)
        self._declare(everything, "fp_udp_register_acl_handler", c_int32, POINTER(Context), c_uint32, POINTER(Handler))
        for name in ("tq_loop_fd", "tq_loop_timeout"):
            self._declare(everything, name, c_int, c_void_p)
        self._declare(everything, "tq_loop_run_once", c_int, c_void_p, c_int)
        tables = (("ctrl_attr", 6), ("field_attr", 181), ("action_attr", 46))
        self._names = [{row.name.decode() for row in (AttrEntry * rows).in_dll(self._plx, name)}
                       for name, rows in tables]
        self._service = Service.in_dll(self._plx, "g_fp_service")
        check(self._plx.plx_initial(), "the library's start")

    def _declare(self, library, name, result, *arguments):
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments
        setattr(self, name, function)

    def context_new(self, store):
        context = self.tq_context_new(None if store is None else store.encode())
        if not context:
            raise OSError(ctypes.get_errno(), f"no store at {store or 'PLX_STORE'}")
        return context

    def context_free(self, context):
        self.tq_context_free(context)

    def register(self, context, app_type, db, callbacks):
        check(self.fp_udp_register_app_type(app_type), "application type")
        check(self.fp_udp_register_acl_handler(context, db, ctypes.byref(callbacks.handler)), "registration")
        return self.fp_udp_get_mgr().contents

    def push(self, entry, cls, name, value):
        """Appends an attribute to an entry, or raises: the buffer's own push is silent."""
        if name not in self._names[cls] or len(value) > 240:
            raise ValueError(f"no attribute of this kind is named {name}, or its value is too long")
        tlv = ctypes.cast(entry.tlv, POINTER(Tlv)).contents
        grown = tlv.len + 8 + len(value)
        if grown > 0xFFFF:
            raise ValueError(f"{name}: an entry holds 65,535 bytes of attributes")
        attr = Attr(name.encode(), cls, len(value), (c_uint8 * 240)(*value))
        tlv.push(ctypes.cast(ctypes.byref(entry, Ace.tlv.offset), POINTER(c_void_p)), attr)
        if not entry.tlv:
            raise MemoryError
        if ctypes.cast(entry.tlv, POINTER(Tlv)).contents.len != grown:
            raise ValueError(f"{name} was not accepted")

    def nodes(self):
        return self._service.count

    def run_once(self, context, milliseconds):
        check(self.tq_loop_run_once(context.contents.master, milliseconds), "event loop")

    def loop_fd(self, context):
        return self.tq_loop_fd(context.contents.master)

    def loop_timeout(self, context):
        return self.tq_loop_timeout(context.contents.master)

    def store_text(self, result):
        return self.tq_mom_strerror(result).decode()


def library():
    global _library
    if _library is None:
        _library = Library()
    return _library
