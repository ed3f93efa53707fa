#!/usr/bin/env python3
"""The client's side of `ovrin-sm demo`, in Python.

The demo's client and session manager are two processes on a socket pair of their own, so this
script plays the client beside them rather than in their place: it runs one session of
`ovrin-sm demo --hex`, builds each request that the demo's client sent as a dict (the messages'
JSON form, docs/json.md) and encodes it on a handle set up as that client's (tracking state, every
type at its highest variant). The session manager reads requests at variant 1 of the event and
without tracking: read so, each of ours must be the message the demo's client sent. Each answer of
the session manager is read as the client reads it, from the bytes that crossed the socket.

A request read from a dict marks no member as set (nor does one read from XML), where the demo's
client, building member by member, marks what it set: the state bytes differ, and a receiver that
does not track steps over them.

    PYTHONPATH=<prefix>/lib/python3/dist-packages python3 client.py [path/to/ovrin-sm]

Exits 0 when the session manager reads every request as the one the demo's client sent.
"""

import re
import subprocess
import sys

import ovrin_sm

REQUEST, ANSWER = "ovrin_smd_in_event", "ovrin_smd_resp_event"
EVENT_TYPES = {e: "SESS_MGR_RCL_IN_" + t for e, t in (
    ("reg_client", "REGISTER"), ("start_client", "SESSION_START"), ("acct", "SESSION_ACCT"),
    ("id_event", "IDENTITY_EVENT"), ("sess_query", "SESSION_ATTR_BULK_QUERY"),
    ("capwap_update_params", "CAPWAP_UPDATE"), ("stop_client", "SESSION_STOP"))}
CLIENT_NAME = "dot1x-wlan-client"


def attrs(*pairs):
    """An attribute list: (type, value) pairs, a value's bytes as hex."""
    return [{"type": t, "value": (v.encode() if isinstance(v, str) else v).hex()} for t, v in pairs]


def requests(session):
    """The client's requests of one session, as the demo's client builds them, by event."""
    conn = {"conn_hdl": 0x1000 + session}
    label = {"session_label": 0x40000000 + session}
    client = {"client_hdl": 0x20000 + session}
    name = {"client_name": CLIENT_NAME}
    user, mac = f"user{session}@corp.example", f"02:00:5e:00:00:{session:02x}"
    return {
        "reg_client": {"rcl_conn_hdl": conn, "cl_name": name, "meth_name": {"method_name": "dot1x"},
                       "session_type": 2, "cb_bitmap": 0x1FFF},
        "start_client": {
            "hdl": conn, "cl_hdl": client,
            "identity_attrs": attrs((1, user), (31, mac), (30, "corp-ssid"), (61, b"\0\0\0\x13")),
            "ext_params": {"trusted": 1, "proximity": 0, "encap_type": "SM_WIRELESS_ACCESS", "dot11_param": {
                "apfMsBssid": "00:1a:2b:3c:4d:5e", "apfMsSrcAddr": "00:1a:2b:00:00:01", "apfMsAddress": mac,
                "apfMsLradSlotId": 1, "wlan_id": 3, "global_wlan_id": 17, "vlan_id": 120, "mcast_vlan_id": 121,
                "oui": [0x00, 0x0F, 0xAC], "eType": 0x888E, "control": 0x40}},
            "cl_name": name},
        "acct": {"conn_hdl": conn, "label": label, "cl_hdl": client, "acct_event": 3,
                 "acct_list": attrs((42, b"\x00\x01\xe2\x40"), (43, b"\x00\x03\x0d\x40"), (46, b"\x00\x00\x02\x58"))},
        "id_event": {"conn_hdl": conn, "label": label, "session_identity": attrs((44, f"acct-{session}")),
                     "cl_hdl": client, "identity": attrs((1, user), (8, b"\x0a\x14\x00\x21")),
                     "action": {"action": 1}, "client_type": {"type": 2}, "attr_change_action": 1, "cl_name": name},
        "sess_query": {"conn_hdl": conn, "query_hdl": 0x900 + session, "session_list_hdl": 0, "num_of_entry": 3,
                       "sess_label": {"session_label": 0}, "match_attrs": attrs((30, "corp-ssid")),
                       "filter_attrs": attrs((1, ""), (31, "")), "session_count": 0},
        "capwap_update_params": {"hdl": conn, "int_num": 0x2000 + session % 64, "mtu": 1485, "dstIp": 0x0A000001,
                                 "srcIp": 0x0A0000FE, "dstPort": 5247, "srcPort": 5246, "dtls_flags": 1},
        "stop_client": {"hdl": conn, "label": label, "identity_attrs": attrs((1, user)),
                        "abort_cause": {"abort_cause": 0}, "terminate_cause": {"terminate_cause": 1},
                        "disconnect_cause": {"disc_cause": 1}, "suppress_disc_notif_ack": 0, "cl_name": name},
    }


def demo_frames(tool):
    """(receiver, event, bytes) of each frame of one session of the demo, in order."""
    shown = subprocess.run([tool, "demo", "--hex"], check=True, capture_output=True, text=True).stdout
    frames = []
    for line in shown.splitlines():
        head = re.match(r"(client|session manager)\s+<- .*?\s(\w+)\s+\d+ bytes", line)
        if head:
            frames.append((head.group(1), head.group(2), bytearray()))
        elif frames and re.fullmatch(r"(\s+[0-9a-f]{2})+", line):
            frames[-1][2].extend(bytes.fromhex(line))
    return frames


def main():
    tool = sys.argv[1] if len(sys.argv) > 1 else "ovrin-sm"
    built = requests(1)
    wrong = 0
    with ovrin_sm.Handle(tracking=True) as client, \
            ovrin_sm.Handle(variants={REQUEST: 1, "ovrin_sm_in_event_type": 1}) as manager:
        for receiver, event, sent in demo_frames(tool):
            if receiver == "session manager":
                # the union's member is named as the event, and event_type selects it
                ours = ovrin_sm.encode(client, REQUEST, {"event_type": EVENT_TYPES[event], event: built[event]})
                same = ovrin_sm.decode(manager, REQUEST, ours) == ovrin_sm.decode(manager, REQUEST, sent)
                wrong += not same
                print(f"-> {event:22} {len(ours):4} bytes  {'read as the demo sent it' if same else 'READ DIFFERENTLY'}")
            else:
                answer = ovrin_sm.decode(client, ANSWER, sent)
                print(f"<- {event:22} {len(sent):4} bytes  {summary(answer[event])}")
        assert client.live_allocations() == 0 and manager.live_allocations() == 0
    return 1 if wrong else 0


def summary(body):
    """A member's scalars, a record of one scalar as that scalar, a list by its length."""
    shown = []
    for k, v in body.items():
        if isinstance(v, dict) and len(v) == 1:
            v = next(iter(v.values()))
        if isinstance(v, list):
            v = f"[{len(v)}]"
        if not isinstance(v, dict):
            shown.append(f"{k} {v}")
    return ", ".join(shown)


if __name__ == "__main__":
    sys.exit(main())
