"""The ovrin_sm message types from Python, over the installed C library (plain ctypes).

A message is held in Python in one of two forms: its wire encoding (``bytes``) or its JSON form
as ``json.loads`` gives it (a ``dict`` for a record or union, a ``str`` or ``int`` for an
enumeration), with the mapping of docs/json.md. Every call makes a library instance for the call
and destroys it before returning, whatever happens::

    import ovrin_sm
    with ovrin_sm.Handle() as h:
        wire = ovrin_sm.encode(h, "sess_mgr_register", {"cl_name": {"client_name": "me"}})
        print(ovrin_sm.decode(h, "sess_mgr_register", wire)["cl_name"])

Every failure raises ``ovrin_sm.Error``. A handle is for one thread at a time.

The library is found where the package was installed from (``_paths.py``), unless
``OVRIN_SM_LIBRARY`` names another file; ``Library(path, domain)`` loads any bundle (its
``<domain>_optable``) and ``Handle(library=...)`` works over it.
"""

import ctypes
import json
import os

try:
    from ._paths import LIBRARY as _LIBRARY
except ImportError:  # the package's sources, never configured: the loader's search path decides
    _LIBRARY = "libovrin_sm.so"

__all__ = ["Error", "Library", "Handle", "default_library", "types", "encode", "decode", "to_json", "from_json",
           "to_xml", "from_xml", "to_print"]

OVRIN_JSON_PRETTY = 1
OVRIN_JSON_LENIENT = 1
_EINVAL, _ENOMEM, _ESHORT = 22, 12, 90
_STTR_TRACKED, _STTR_UNTRACKED = 0xEEEE, 0xDDDD
_LUID = 1
_ENUM_WIRE_SIZE = 5  # an enumeration has no len operation: its encoding is always 5 bytes
_KINDS = ("enumeration", "record", "union")


class Error(Exception):
    """A refused operation: ``code`` (the runtime's: 2, 12, 22, 28, 43, 90 or an errno value),
    ``text`` (what is wrong), ``path`` (the JSON pointer or XML path of the offending value, when
    the library names one) and ``offset`` (where a decode stopped, for a decode)."""

    def __init__(self, code, text, path=None, offset=None, type_name=None):
        self.code, self.text, self.path, self.offset = code, text, path, offset
        if type_name and not text.startswith(type_name):
            text = f"{type_name}: {text}"
        where = ""
        if path is not None and path not in text:
            where = f" at {path!r}"
        elif offset is not None:
            where = f" at byte {offset}"
        super().__init__(f"{text}{where} (error {code})")


class _JsonError(ctypes.Structure):
    # ovrin_json_error: both texts come from malloc; kept as addresses so that they can be freed
    _fields_ = [("text", ctypes.c_void_p), ("pointer", ctypes.c_void_p)]


_h, _p, _u8, _u32, _i32 = ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint8, ctypes.c_uint32, ctypes.c_int32
_size, _i64, _str = ctypes.c_size_t, ctypes.c_int64, ctypes.c_char_p
_u32p, _textp, _sizep = ctypes.POINTER(_u32), ctypes.POINTER(ctypes.c_void_p), ctypes.POINTER(_size)
_F = ctypes.CFUNCTYPE


class _TypeOps(ctypes.Structure):
    """<domain>_type_ops: one entry of the generated operations table (optable.h)."""
    _fields_ = [
        ("name", _str),
        ("kind", ctypes.c_int),
        ("create", _F(_p, _h, _u32)),
        ("destroy", _F(None, _h, _u32, _p)),
        ("adjust_variant", _F(_u32, _h, _u32, _p, _u32p)),
        ("len", _F(_u32, _h, _u32, _p)),
        ("marshal", _F(_u32, _h, _u32, _p, _p, _i32, _u32p)),
        ("unmarshal", _F(_u32, _h, _u32, _p, _p, _i32, _u32, _u32p)),
        ("to_xml", _F(_u32, _h, _u32, _str, _p, _p, _u32, _u8, _u32p)),
        ("from_xml", _F(None, _h, _u32, _str, _p, _p, _u32p, _p, _u32)),
        ("print", _F(_u32, _h, _u32, _p, _u32, _str, _p, _u32, _u32p)),
        ("print_cr", _F(_i32, _h, _p, _p, _u32)),
        ("toxml_cr", _F(_u32, _h, _p, _p, _u32)),
        ("clone", _F(None, _h, _u32, _p, _p, _p, _u32, _u32p)),
        ("compare", _F(_i32, _p, _p)),
        ("hash", _F(_u32, _p, _u32)),
        ("print_whole", _F(_i64, _h, _p, _textp, _sizep)),
        ("toxml_whole", _F(_i64, _h, _p, _textp, _sizep)),
        ("to_json", _F(_i64, _h, _p, _u32, _textp, _sizep)),
        ("from_json", _F(_u32, _h, _u32, _p, _size, _p, _u32, ctypes.POINTER(_JsonError))),
    ]


_libc = ctypes.CDLL(None)
_libc.free.argtypes, _libc.free.restype = [ctypes.c_void_p], None


def _signatures(lib):
    for name, res, args in (
            ("mgx_handle_create", _h, []),
            ("mgx_handle_destroy", None, [_h]),
            ("mgx_handle_set_state_tracking", None, [_h, ctypes.c_int, _u32]),
            ("mgx_handle_set_domain_variant", ctypes.c_int, [_h, _str, ctypes.c_int8]),
            ("mgx_handle_live_allocations", ctypes.c_uint64, [_h]),
            ("mgx_handle_last_error", _u32, [_h]),
            ("mgx_handle_fail_allocation", None, [_h, _u32]),
            ("mgx_handle_allocation_failure_pending", _u32, [_h]),
            ("mgx_strerror", _str, [_u32]),
            ("mgx_xml_document_read", _p, [_p, _size, _p, _size]),
            ("mgx_xml_document_free", None, [_p])):
        f = getattr(lib, name)
        f.restype, f.argtypes = res, args


class Library:
    """A bundle's shared library and its operations table: ``path`` (default: the one this package
    was installed with, or ``OVRIN_SM_LIBRARY``) and ``domain``, whose ``<domain>_optable`` it reads.
    The runtime's functions are found through the bundle, which depends on libmgx."""

    def __init__(self, path=None, domain="ovrin_sm"):
        if path is None:
            path = os.environ.get("OVRIN_SM_LIBRARY") or (
                os.path.join(os.path.dirname(os.path.abspath(__file__)), _LIBRARY) if "/" in _LIBRARY else _LIBRARY)
        self.path, self.domain = path, domain
        try:
            self._lib = ctypes.CDLL(path)
            count = ctypes.c_uint32.in_dll(self._lib, f"{domain}_optable_count").value
            self._table = (_TypeOps * count).in_dll(self._lib, f"{domain}_optable")
        except (OSError, ValueError) as e:
            raise Error(_EINVAL, f"cannot load the {domain} library {path}: {e}") from None
        _signatures(self._lib)
        self._by_name = {e.name.decode(): e for e in self._table}

    def types(self):
        """The type names, in the table's (registration) order."""
        return [e.name.decode() for e in self._table]

    def kind(self, type_name):
        """``"enumeration"``, ``"record"`` or ``"union"``."""
        return _KINDS[self.entry(type_name).kind]

    def entry(self, type_name):
        try:
            return self._by_name[type_name]
        except KeyError:
            raise Error(_EINVAL, f"{self.domain} has no type {type_name!r}") from None

    def strerror(self, code):
        return self._lib.mgx_strerror(code).decode()


_default = None


def default_library():
    """The package's own library, loaded on first use."""
    global _default
    if _default is None:
        _default = Library()
    return _default


def types(library=None):
    """The type names of the library (default: the package's), in table order."""
    return (library or default_library()).types()


class Handle:
    """A runtime handle. ``tracking``: instances carry a state flag per field, and so do their
    encodings. ``variants``: ``{type_name: variant}``, the highest variant of each named type this
    side speaks (every other type at its highest). Close it, or use it as a context manager."""

    def __init__(self, tracking=False, variants=None, library=None):
        self._h = None
        self.library = library or default_library()
        lib = self.library._lib
        self._h = lib.mgx_handle_create()
        if not self._h:
            raise Error(_ENOMEM, "cannot create a runtime handle")
        try:
            lib.mgx_handle_set_state_tracking(self._h, int(tracking), _STTR_TRACKED if tracking else _STTR_UNTRACKED)
            for name, variant in (variants or {}).items():
                self.library.entry(name)
                code = lib.mgx_handle_set_domain_variant(self._h, name.encode(), variant)
                if code:
                    raise Error(code, f"cannot set the variant of {name}")
        except BaseException:
            self.close()
            raise

    def close(self):
        if self._h:
            self.library._lib.mgx_handle_destroy(self._h)
            self._h = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        self.close()

    def live_allocations(self):
        """Instance blocks the handle holds: 0 whenever no call is under way."""
        return self.library._lib.mgx_handle_live_allocations(self._live())

    def _live(self):
        if not self._h:
            raise Error(_EINVAL, "the handle is closed")
        return self._h

    def _fail(self, code, type_name, what, **where):
        raise Error(code, what or self.library.strerror(code), type_name=type_name, **where)


class _Instance:
    """One library instance of a type, made as a receiver makes it (created, then raised to the
    handle's variant of the type); a context manager that destroys it on exit."""

    def __init__(self, h, type_name):
        self.h, self.name, self.ops = h, type_name, h.library.entry(type_name)
        self.p = self.ops.create(h._live(), _LUID)
        if not self.p:
            h._fail(_ENOMEM, type_name, None)
        err = _u32(0)
        self.ops.adjust_variant(h._h, _LUID, self.p, ctypes.byref(err))
        if err.value:
            self.__exit__()
            h._fail(err.value, type_name, None)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.ops.destroy(self.h._h, _LUID, self.p)

    def decode(self, data):
        data = bytes(data)
        err = _u32(0)
        if len(data) > 0x7FFFFFFF:
            self.h._fail(_EINVAL, self.name, "too many bytes")
        used = self.ops.unmarshal(self.h._h, _LUID, data, self.p, len(data), 1, ctypes.byref(err))
        if err.value:
            self.h._fail(err.value, self.name, None, offset=used)
        if used != len(data):
            self.h._fail(_EINVAL, self.name, f"{len(data) - used} bytes after the encoding", offset=used)

    def encode(self):
        space = _ENUM_WIRE_SIZE if self.ops.kind == 0 else self.ops.len(self.h._h, _LUID, self.p)
        while True:
            # a tracking encoder may store one state byte past the space it is given
            buf = ctypes.create_string_buffer(space + 1)
            err = _u32(0)
            n = self.ops.marshal(self.h._h, _LUID, buf, self.p, space, ctypes.byref(err))
            if not err.value:
                return buf.raw[:n]
            if err.value != _ESHORT or space > 1 << 30:
                self.h._fail(err.value, self.name, None)
            space = space * 2 + 64

    def from_json(self, text, lenient):
        raw = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)
        error = _JsonError()
        code = self.ops.from_json(self.h._h, _LUID, raw, len(raw), self.p, OVRIN_JSON_LENIENT if lenient else 0,
                                  ctypes.byref(error))
        what, pointer = _take(error.text), _take(error.pointer)
        if code:
            self.h._fail(code, self.name, what, path=pointer)

    def whole(self, render, *flags):
        text, size = ctypes.c_void_p(), _size(0)
        n = render(self.h._h, self.p, *flags, ctypes.byref(text), ctypes.byref(size))
        out = ctypes.string_at(text.value, n) if n >= 0 and text.value else b""
        _libc.free(text)
        if n < 0:
            self.h._fail(self.h.library._lib.mgx_handle_last_error(self.h._h) or _ENOMEM, self.name, None)
        return out.decode("utf-8", "surrogateescape")

    def from_xml(self, text):
        raw = text.encode() if isinstance(text, str) else bytes(text)
        lib, why = self.h.library._lib, ctypes.create_string_buffer(512)
        doc = lib.mgx_xml_document_read(raw, len(raw), why, len(why))
        if not doc:
            self.h._fail(_EINVAL, self.name, why.value.decode(errors="replace") or None)
        try:
            err, message = _u32(0), ctypes.create_string_buffer(512)
            self.ops.from_xml(self.h._h, _LUID, f"/{self.name}".encode(), doc, self.p, ctypes.byref(err), message,
                              len(message))
        finally:
            lib.mgx_xml_document_free(doc)
        if err.value:
            text = message.value.decode(errors="replace")
            path = text.rsplit(" at ", 1)[1] if " at /" in text else None
            self.h._fail(err.value, self.name, text or None, path=path)


def _take(address):
    """A malloc'd C text as str, freed."""
    if not address:
        return None
    try:
        return ctypes.string_at(address).decode(errors="replace")
    finally:
        _libc.free(address)


def _wide_as_text(value):
    """value with every integer past 2^63 - 1 written as a string of digits: the reader takes a
    64-bit value past that only so (docs/json.md), and Python's ints have no such bound."""
    if isinstance(value, dict):
        return {k: _wide_as_text(v) for k, v in value.items()}
    if isinstance(value, list):
        return [_wide_as_text(v) for v in value]
    if isinstance(value, int) and not isinstance(value, bool) and value > 0x7FFFFFFFFFFFFFFF:
        return str(value)
    return value


def _filled(h, type_name, value, lenient):
    """An instance holding value: wire bytes (bytes, bytearray, memoryview) or the JSON form."""
    inst = _Instance(h, type_name)
    try:
        if isinstance(value, (bytes, bytearray, memoryview)):
            inst.decode(value)
        else:
            inst.from_json(json.dumps(_wide_as_text(value), ensure_ascii=False), lenient)
        return inst
    except BaseException:
        inst.__exit__()
        raise


def decode(h, type_name, data):
    """The JSON form (a dict, or an enumeration's literal) of one whole encoding. Bytes after the
    encoding are refused (22)."""
    return json.loads(to_json(h, type_name, bytes(data)))


def encode(h, type_name, value, lenient=False):
    """The wire encoding of a message given in its JSON form (dict) or as wire bytes. Members the
    value leaves out keep a new instance's values. Strictly read unless ``lenient``."""
    with _filled(h, type_name, value, lenient) as inst:
        return inst.encode()


def to_json(h, type_name, value, pretty=False, lenient=False):
    """The JSON text of a message (wire bytes or its JSON form), compact unless ``pretty``."""
    with _filled(h, type_name, value, lenient) as inst:
        return inst.whole(inst.ops.to_json, OVRIN_JSON_PRETTY if pretty else 0)


def from_json(h, type_name, text, lenient=False):
    """The wire encoding of a message given as JSON text."""
    with _Instance(h, type_name) as inst:
        inst.from_json(text, lenient)
        return inst.encode()


def to_xml(h, type_name, value, lenient=False):
    """The XML text of a message (wire bytes or its JSON form)."""
    with _filled(h, type_name, value, lenient) as inst:
        return inst.whole(inst.ops.toxml_whole)


def from_xml(h, type_name, text):
    """The wire encoding of a message given as an XML document whose root is named as the type.
    Bytes, not the JSON form: the encoding keeps all that the library read (on a tracking handle,
    which members the document set); ``decode`` gives the dict."""
    with _Instance(h, type_name) as inst:
        inst.from_xml(text)
        return inst.encode()


def to_print(h, type_name, value, lenient=False):
    """The print form of a message (wire bytes or its JSON form)."""
    with _filled(h, type_name, value, lenient) as inst:
        return inst.whole(inst.ops.print_whole)
