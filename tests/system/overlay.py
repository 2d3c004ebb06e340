"""The overlay ping on the wire, built and read with scapy from the packet
tables of the request and the reply (never from the daemon's own code).

    request(vni, mac=None, inner_v4=True, seq=1)   -> UDP payload bytes
    decode(reply_payload)                          -> dict of the fields
"""

import struct

from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import Ether
from scapy.layers.vxlan import VXLAN

OAM_PORT = 4789
ECHO_REQUEST, ECHO_REPLY = 1, 2
RC_VNI_UNKNOWN, RC_VNI_KNOWN = 2, 4
MAC_PRESENT, MAC_ABSENT = 1, 2


def request(vni, mac=None, inner_v4=True, seq=1, handle=0x1234, tunnel_src="192.0.2.2"):
    """An echo request as the ping command sends it (UDP payload)."""
    inner = (Ether(src="00:00:5e:90:00:ff", dst="00:00:5e:90:00:ff", type=0x0800) /
             (IP(src=tunnel_src, dst="127.0.0.1", ttl=255) if inner_v4 else IPv6(dst="::1", hlim=255)) /
             UDP(sport=OAM_PORT, dport=OAM_PORT))
    # Echo header: type, reply mode, return code, subcode, handle, sequence,
    # sent seconds and milliseconds, received seconds and fraction.
    echo = struct.pack("!BBBBIIIIII", ECHO_REQUEST, 3, 0, 0, handle, seq, 1000, 500, 0, 0)
    mac_bytes = bytes.fromhex(mac.replace(":", "")) if mac else bytes(6)
    # TLV: type 1, length 20, VNI in the high 24 bits, the sender's VTEP; then
    # the end-host MAC sub-TLV (type 1, length 8) with a status of 0.
    tlv = struct.pack("!HHI4sHH6sH", 1, 20, vni << 8, bytes(map(int, tunnel_src.split("."))), 1, 8, mac_bytes, 0)
    return bytes(VXLAN(flags=0x09, vni=vni) / inner) + echo + tlv


def decode(payload):
    """The fields of a reply's UDP payload (the request's bytes, changed)."""
    vx = VXLAN(payload)
    inner_v4 = payload[22] >> 4 == 4
    e = 50 if inner_v4 else 70
    t = e + 28
    mtype, mode, rc, sub, handle, seq, s_sec, s_ms, r_sec, r_ms = struct.unpack("!BBBBIIIIII", payload[e:e + 28])
    tlv_type, tlv_len, vni_word = struct.unpack("!HHI", payload[t:t + 8])
    sub_type, sub_len = struct.unpack("!HH", payload[t + 12:t + 16])
    (mac_status,) = struct.unpack("!H", payload[t + 22:t + 24])
    return {
        "flags": int(vx.flags), "inner_v4": inner_v4, "type": mtype, "rc": rc, "handle": handle, "seq": seq,
        "sent": (s_sec, s_ms), "received": (r_sec, r_ms), "vni": vni_word >> 8, "tlv_len": tlv_len,
        "mac": payload[t + 16:t + 22].hex(":"), "mac_status": mac_status, "length": len(payload) + 28,
    }
