"""The responder on two Linux VTEPs built with iproute2 (linux_vtep.py): the
kernel's VXLAN device holds port 4789, rtsockd and fdblearnd mirror the
kernel, and what an operator changes with ip and bridge is what the overlay
ping reports, without a restart."""

import json

import pytest

import linux_vtep as lv
import tvxns

MAC = "00:11:22:33:44:55"


@pytest.fixture
def pair(build_dir, tmp_path):
    if not tvxns.available():
        pytest.skip("system tests need root and unshare")
    with tvxns.Namespace() as remote, tvxns.Namespace() as local:
        probe = remote.call(["ip", "link", "add", "vxprobe", "type", "vxlan", "id", "1", "dstport", "4789"],
                            check=False)
        if probe.returncode != 0:
            pytest.skip("this kernel makes no VXLAN devices")
        remote.call(["ip", "link", "del", "vxprobe"])
        yield lv.LinuxPair(remote, local, build_dir, tmp_path)


def probe(pair, vni=lv.VNI, mac=MAC):
    """One probe from the local VTEP: its reply object, or None."""
    r = pair.ping(["--vni", str(vni), "--mac", mac, "-c", "1", "-W", "2", "--json", lv.REMOTE])
    assert r.returncode in (0, 1), r.stderr
    replies = [o for o in map(json.loads, r.stdout.splitlines()) if o["type"] == "reply"]
    return replies[0] if replies else None


def mirrored_macs(ns):
    """MAC of every bridge MAC route that rtsockd holds."""
    out = set()
    for line in lv.show(ns, "route"):
        kind, f = lv.fields(line)
        if f.get("af") == "63":
            out.add(f["prefix"].split("/")[0].split(":", 4)[4])
    return out


def bd_deleted(vtep, count):
    return vtep.trace().count(f"Deleting [vni {lv.VNI},") >= count


def test_the_overlay_ping_follows_the_kernel(pair):
    remote = pair.remote_ns
    remote.call(["bridge", "fdb", "add", MAC, "dev", "vx0", "master", "static"])
    tvxns.wait_for(lambda: MAC in mirrored_macs(remote), what="the entry in rtsockd")
    r = probe(pair)
    assert r and r["return_code"] == 4 and r["mac_status"] == 1, r
    assert r["from"] == lv.REMOTE

    remote.call(["bridge", "fdb", "del", MAC, "dev", "vx0", "master"])
    tvxns.wait_for(lambda: MAC not in mirrored_macs(remote), what="the entry gone from rtsockd")
    r = probe(pair)
    assert r and r["return_code"] == 4 and r["mac_status"] == 2, r

    # The VXLAN device goes: the bridge is no bridge domain any more. Another
    # one (VNI 200) keeps port 4789 held, as on a VTEP of several VNIs; with
    # none left the kernel would also answer "port unreachable".
    remote.call(["ip", "link", "add", "br1", "type", "bridge"])
    lv.add_vxlan(remote, "vx200", lv.REMOTE, lv.LOCAL, "veth0", vni=200, bridge="br1")
    remote.call(["ip", "link", "del", "vx0"])
    tvxns.wait_for(lambda: bd_deleted(pair.remote, 1), what="tunechod told of the deletion")
    r = probe(pair)
    assert r and r["return_code"] == 2, r

    # A new one comes without a restart of anything, with its entries.
    lv.add_vxlan(remote, "vx1", lv.REMOTE, lv.LOCAL, "veth0")
    remote.call(["bridge", "fdb", "add", MAC, "dev", "vx1", "master", "static"])
    tvxns.wait_for(lambda: MAC in mirrored_macs(remote), what="the new device's entry in rtsockd")
    tvxns.wait_for(lambda: pair.remote.trace().count(f"Adding [vni {lv.VNI},") >= 2, what="the new bridge domain")
    r = probe(pair)
    assert r and r["return_code"] == 4 and r["mac_status"] == 1, r
    vx1 = lv.ip_json(remote, "ip", "-j", "link", "show", "vx1")[0]["ifindex"]
    assert lv.fdblearnd_answer(remote, "0/100/0/0") == f"br0/{vx1}"
    assert lv.fdblearnd_answer(remote, "0/200/0/0").startswith("br1/")

    # The kernel's VXLAN devices carry the overlay all the while, and the
    # responders saw none of it as a request.
    assert lv.overlay_echo(pair, b"through vx1") == b"through vx1"
    for v in (pair.remote, pair.local):
        for p in (v.rtsockd, v.fdblearnd, v.tunechod):
            assert p.poll() is None
    received = pair.remote.trace().count("Received UDP packet from")
    assert received == 4, pair.remote.trace()[-2000:]


def test_the_mirror_is_what_ip_and_bridge_show(pair):
    ns = pair.remote_ns
    ns.call(["ip", "addr", "add", "10.255.0.1/32", "dev", "lo"])
    ns.call(["ip", "addr", "add", "2001:db8::1/64", "dev", "veth0"])
    ns.call(["bridge", "fdb", "add", MAC, "dev", "vx0", "master", "static"])
    ns.call(["bridge", "fdb", "append", "00:aa:bb:cc:dd:ee", "dev", "vx0", "dst", lv.LOCAL])
    links = lv.ip_json(ns, "ip", "-j", "-d", "link", "show")
    addrs = lv.ip_json(ns, "ip", "-j", "addr", "show")
    fdb = lv.ip_json(ns, "bridge", "-j", "fdb", "show")

    def want_links():
        return {(l["ifindex"], "lo0" if l["ifname"] == "lo" else l["ifname"], l["mtu"]) for l in links}

    def have_links():
        return {(int(f["index"]), f["name"], int(f["mtu"])) for _, f in map(lv.fields, lv.show(ns, "ifd"))}

    def want_addrs():
        return {(l["ifindex"], a["local"]) for l in addrs for a in l.get("addr_info", [])}

    def have_addrs():
        return {(int(f["ifl_index"]), f["local"].split("/")[0]) for _, f in map(lv.fields, lv.show(ns, "ifa"))}

    tvxns.wait_for(lambda: have_links() == want_links() and have_addrs() == want_addrs(),
                   what="links and addresses as ip shows them")
    assert have_links() == want_links()
    assert have_addrs() == want_addrs()

    # Bridge domains: br0, holding vx0 with VNI 100 on port 4789, in table 254.
    by_name = {l["ifname"]: l for l in links}
    bds = [lv.fields(l)[1] for l in lv.show(ns, "bd")]
    assert len(bds) == 1
    bd = bds[0]
    assert (bd["index"], bd["name"], bd["vnid"], bd["udp_port"], bd["rtb_id"]) == \
        (str(by_name["br0"]["ifindex"]), "br0", "100", "4789", "254")
    assert by_name["vx0"]["linkinfo"]["info_data"]["id"] == 100

    # Every entry of bridge fdb on br0, a port of it or vx0 is a MAC route of
    # that bridge domain, and nothing else is.
    ports = {"br0"} | {l["ifname"] for l in links if l.get("master") == "br0"}
    want = {e["mac"] for e in fdb if e["ifname"] in ports and e["mac"] != "00:00:00:00:00:00"}
    tvxns.wait_for(lambda: mirrored_macs(ns) == want, what="forwarding entries as bridge shows them")
    assert {MAC, "00:aa:bb:cc:dd:ee"} <= want
    for line in lv.show(ns, "route"):
        _, f = lv.fields(line)
        assert f["table"] == "254" and f["prefix"].startswith(f"{int(bd['index']) >> 8:02x}:{int(bd['index']) & 255:02x}:")

    # fdblearnd answers from the same kernel: the bridge's name and vx0's index.
    assert lv.fdblearnd_answer(ns, "0/100/0/0") == f"br0/{by_name['vx0']['ifindex']}"
    assert lv.fdblearnd_answer(ns, "254/100/0/0") == f"br0/{by_name['vx0']['ifindex']}"
    assert lv.fdblearnd_answer(ns, "0/200/0/0") == ""
