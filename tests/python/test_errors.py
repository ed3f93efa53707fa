"""What the package refuses, and that a refusal leaves nothing behind: every error is an
ovrin_sm.Error with the library's code, its words and where (a JSON pointer, an XML path, a decode
offset); every instance made for a refused call is destroyed."""

import json
import re

import pytest

import ovrin_sm


def first_number(value, pointer=""):
    """(JSON pointer, container, key) of the first integer in a dict form, or None. Member names
    hold no "~" or "/", so a pointer is the names joined."""
    items = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    for key, v in items:
        if type(v) is int:
            return f"{pointer}/{key}", value, key
        found = first_number(v, f"{pointer}/{key}")
        if found:
            return found
    return None


def test_bytes_that_are_not_one_whole_encoding(bundle, handle):
    h = handle()
    for f, t, data in bundle.untracked():
        with pytest.raises(ovrin_sm.Error) as short:
            ovrin_sm.decode(h, t, data[:-1])
        assert short.value.code != 0 and short.value.offset <= len(data) - 1, f
        with pytest.raises(ovrin_sm.Error) as long:
            ovrin_sm.decode(h, t, data + b"\0")
        assert (long.value.code, long.value.offset) == (22, len(data)), f


def test_json_refusals_name_the_value(bundle, handle):
    h = handle()
    for f, t, data in bundle.untracked():
        value = ovrin_sm.decode(h, t, data)
        if not isinstance(value, dict):  # an enumeration: a literal's name, or a number
            with pytest.raises(ovrin_sm.Error) as e:
                ovrin_sm.encode(h, t, "NO_SUCH_LITERAL")
            assert (e.value.code, e.value.path) == (22, ""), f
            continue
        with pytest.raises(ovrin_sm.Error) as e:
            ovrin_sm.encode(h, t, dict(value, no_such_member=1))
        assert (e.value.code, e.value.path) == (22, "/no_such_member"), f
        assert "no_such_member" in e.value.text and "no_such_member" in str(e.value)
        assert ovrin_sm.encode(h, t, dict(value, no_such_member=1), lenient=True) == data, f
        wrong = json.loads(json.dumps(value))
        found = first_number(wrong)
        if found:
            pointer, container, key = found
            container[key] = "a string"
            with pytest.raises(ovrin_sm.Error) as e:
                ovrin_sm.encode(h, t, wrong)
            assert (e.value.code, e.value.path) == (22, pointer), f
            ovrin_sm.encode(h, t, wrong, lenient=True)
        for text in ("{", '{"a": 1} x', ""):
            with pytest.raises(ovrin_sm.Error) as e:
                ovrin_sm.from_json(h, t, text, lenient=True)
            assert (e.value.code, e.value.path) == (22, ""), (f, text)


def test_documents_that_do_not_read(bundle, handle):
    h = handle()
    for f, t, data in bundle.untracked():
        xml = ovrin_sm.to_xml(h, t, data)
        with pytest.raises(ovrin_sm.Error) as e:
            ovrin_sm.from_xml(h, t, xml[: len(xml) // 2])
        assert e.value.code == 22 and "line 1" in e.value.text, f
        number = re.search(r"<(\w+)>\d+<", xml)
        if number:  # a number the type cannot read: refused, at its element's path
            with pytest.raises(ovrin_sm.Error) as e:
                ovrin_sm.from_xml(h, t, xml[: number.end(1) + 1] + "x" + xml[number.end(1) + 1:])
            assert e.value.code == 22 and e.value.path.startswith(f"/{t}/"), f
            assert e.value.path.endswith("/" + number.group(1)), f


def test_refused_memory_frees_the_rest(bundle, handle):
    # The nth instance allocation of a call refused, for every n the call reaches: the call raises
    # 12 (or succeeds, where the library could do without), and nothing it made stays allocated.
    h = handle()
    lib = bundle.library._lib
    calls = {
        "decode": lambda t, data, value, xml: ovrin_sm.decode(h, t, data),
        "encode": lambda t, data, value, xml: ovrin_sm.encode(h, t, value),
        "from_xml": lambda t, data, value, xml: ovrin_sm.from_xml(h, t, xml),
        "to_print": lambda t, data, value, xml: ovrin_sm.to_print(h, t, value),
    }
    refused = 0
    for f, t, data in bundle.untracked():
        value, xml = ovrin_sm.decode(h, t, data), ovrin_sm.to_xml(h, t, data)
        for what, call in calls.items():
            for nth in range(1, 10000):
                lib.mgx_handle_fail_allocation(h._h, nth)
                try:
                    call(t, data, value, xml)
                except ovrin_sm.Error as e:
                    assert e.code == 12, (f, what, nth, str(e))
                    refused += 1
                reached = lib.mgx_handle_allocation_failure_pending(h._h) == 0
                lib.mgx_handle_fail_allocation(h._h, 0)
                assert h.live_allocations() == 0, (f, what, nth)
                if not reached:
                    break
    assert refused > len(bundle.samples)


def test_misuse(bundle, handle):
    with pytest.raises(ovrin_sm.Error, match="no_such_type"):
        ovrin_sm.encode(handle(), "no_such_type", {})
    closed = ovrin_sm.Handle(library=bundle.library)
    closed.close()
    with pytest.raises(ovrin_sm.Error, match="closed"):
        ovrin_sm.to_json(closed, bundle.library.types()[0], {})
    with pytest.raises(ovrin_sm.Error, match="cannot load"):
        ovrin_sm.Library(bundle.library.path, "no_such_domain")
