"""Writes one entry with a value of each form, and tries values that are none; with an argument: asks too much."""
import sys

import plx

app = plx.Application("all")


def refused(call, *arguments, **options):
    try:
        print("accepted", options, call(*arguments, **options))
    except (ValueError, TimeoutError, plx.Error) as error:
        print(error)


if len(sys.argv) > 1:
    app.wait_for_nodes(1)
    print(app.set_ace(1, 1).outcome)
    refused(app.wait_for_nodes, 2, 0)
    refused(app.set_acl, 1, priv=bytes(33))
    refused(plx.Application, "x" * 32)
    sys.exit()
app.set_acl(1)
app.set_ace(1, 1, priority=7, priv=b"x", action={"fwd": "permit", "egress_mask": "1-4,255"},
            match={"ipv4_src": "10.0.0.0/8", "ipv4_proto": "tcp", "tcp_flag": "syn/syn+ack", "l2_da_hit": True,
                   "src_mac": "00-11-22-33-44-55", "dst_mac": "01:80:c2:00:00:00/24", "ipv6_src": "2001:db8::/32",
                   "ipv6_src_up": "2001:db8::", "dst_range": "1024-65535", "src_range": "ssh", "vid": 0x123,
                   "mpls_lab": "5/0xff", "ace_udf1": "0x01020304", "etype": b"\x08\x06"})
for name, value in (("ipv4_src", "10.0.0.1/8"), ("ipv4_src", "10.0.0.0/33"), ("vid", 4096), ("vid", -1), ("colour", 1),
                    ("dst_range", "9-8"), ("src_mac", "00:11"), ("ace_udf1", bytes(241))):
    refused(app.set_ace, 1, 2, match={name: value})
