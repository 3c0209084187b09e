#!/usr/bin/env python3
"""Writes a scenario of any size: make_scenario.py NAME SATELLITES CLIENTS [IOT] > NAME.json

home.json         is  make_scenario.py home 2 25 6
home_iwinfo.json  is  make_scenario.py home_iwinfo 2 25 6
large.json        is  make_scenario.py large 8 512 96

A name that ends in _iwinfo gives the mesh of the name before it, whose nodes tell of their Wi-Fi through iwinfo.

The same arguments give the same file. A client a line, so that a change of one shows as one line."""
import json
import random
import sys

NAMES = ["Hall", "Kitchen", "Office", "Attic", "Cellar", "Garage", "Nursery", "Garden", "Studio"]
KINDS = [(2, "phone"), (3, "laptop"), (4, "tablet"), (5, "tv"), (1, "desktop"), (6, "printer")]
MODULES = ["kiro", "zuna", "hue", "matter"]
CATEGORIES = ["light", "switch", "lock", "sensor", "thermostat", "occupancyTag"]
AP_DIGIT = {0: 2, 1: 4, 2: 5}  # network type (host, guest, IoT) to the number of its AP interface

# A hub of the board itself, and a stick in its port.
USB_STICK = {"/sys/bus/usb/devices/" + name: text + "\n" for name, text in [
    ("usb1/bDeviceClass", "09"), ("1-0:1.0/bInterfaceClass", "09"),
    ("1-1/bDeviceClass", "00"), ("1-1/idVendor", "0781"), ("1-1/idProduct", "5567"),
    ("1-1:1.0/bInterfaceClass", "08")]}


def mac(group, number):
    return "02:00:00:%02x:%02x:%02x" % (group, number >> 8, number & 255)


def driver(rng, index, parent_mac):
    interfaces = {
        "ra0": {"channel": 6, "utilisation": rng.randint(10, 60), "temperature": rng.randint(44, 63)},
        "rax0": {"channel": 44, "utilisation": rng.randint(5, 40), "bandwidth": 2},
    }
    if parent_mac:
        for name, rates in (("apcli0", (287, 258)), ("apclix0", (1729, 1441))):
            interfaces[name] = {
                "utilisation": rng.randint(5, 60),
                "uplink": {"mac": parent_mac, "tx": rates[0] - 7 * index, "rx": rates[1] - 5 * index,
                           "rssi": -48 - 2 * index},
            }
    if index == 1:  # a driver that tells no length of its answers
        for interface in interfaces.values():
            interface["faults"] = {"all": "silent"}
    return {"interfaces": interfaces}


def node(rng, index, ids):
    main = index == 0
    entry = {
        "device_id": ids[index],
        "mac": mac(1, index + 1),
        "ip": "192.168.68.%d" % (index + 1),
        "model": "MeshNode AX5400" if main else "MeshNode AX3000",
        "fw_version": "1.2.10 Build 20240115",
        "hw_version": "1.0" if main else "2.0",
        "nickname": NAMES[index % len(NAMES)],
        "sysmode": "router",
    }
    ports = [{"port": 1, "link": True, "speed": 2500 if main else 1000},
             {"port": 2, "link": True, "speed": 1000},
             {"port": 3, "link": False, "speed": 0}]
    entry["ports"] = {"wan": 1, "list": ports} if main else {"list": ports}
    entry["low_power"] = {"res": "success", "associate_time": 3 + index, "associate_duration": 120 + 10 * index}
    if main:
        entry["driver"] = driver(rng, 0, None)
        entry["network"] = {
            "wan": {"up": True, "uptime": 86400, "l3_device": "eth1", "proto": "dhcp",
                    "route": [{"target": "0.0.0.0", "mask": 0, "nexthop": "198.51.100.1"}]},
            "wan6": {"up": True, "uptime": 86390, "l3_device": "eth1", "proto": "dhcpv6",
                     "route": [{"target": "::", "mask": 0, "nexthop": "2001:db8::1"}]},
        }
        entry["files"] = USB_STICK
    else:
        parent = 0 if index < 5 else index - 4  # the far ones hang from another satellite
        entry["parent"] = ids[parent]
        entry["prefer_connect_device"] = ids[parent]
        entry["driver"] = driver(rng, index, mac(1, parent + 1))
        entry["ping"] = {"default": "%.3f" % (1.2 + 0.4 * index)}
    return entry


def client(rng, number, ids, is_iot):
    # A quarter on the main node, the others evenly on the satellites. Then 512 clients stay within what holds them: a
    # station table has 64 entries, the satellites' client file 65,535 bytes. More are the main node's, and of those the
    # client management tells what its answers have room for (1 MiB).
    satellites = len(ids) - 1
    on_main = satellites == 0 or number % 4 == 0 or number >= 512
    where = ids[0] if on_main else ids[1 + (number // 4 * 3 + number % 4 - 1) % satellites]
    wired = not is_iot and number % 7 == 3
    guest = not is_iot and not wired and number % 11 == 5
    kind, kind_name = (7, "iot") if is_iot else KINDS[number % len(KINDS)]
    entry = {
        "mac": mac(2, number + 1),
        "ip": "192.168.%d.%d" % (69 + number // 250, 2 + number % 250),
        "hostname": "%s-%d" % (kind_name, number + 1),
        "node": where,
        "wire_type": "wired" if wired else "wireless",
        "client_type": kind,
        "retx_byte": rng.randint(10**4, 10**11),
        "rerx_byte": rng.randint(10**4, 10**12),
    }
    if number >= 2560:
        entry["in_client_mgmt"] = False
    if wired:
        entry["connection_type"] = "wired"
        return entry
    five = not is_iot and number // 4 % 2 == 0
    network = 2 if is_iot else 1 if guest else 0
    entry.update({
        "connection_type": "5G" if five else "2.4G",
        "network_type": network,
        "is_guest": guest,
        "is_mlo": five and number % 17 == 1,
        "signal_level_5g" if five else "signal_level_2g": rng.randint(20, 95),
        "interface": "%s%d" % ("rax" if five else "ra", AP_DIGIT[network]),
        "phymode": 3 if five else 2,
        "tx": rng.randint(200, 1200) if five else rng.randint(20, 280),
        "rx": rng.randint(200, 1200) if five else rng.randint(20, 280),
    })
    if is_iot:
        entry["iot_module"] = MODULES[number % len(MODULES)]
        entry["iot_category"] = CATEGORIES[number % len(CATEGORIES)]
    return entry


def rates(tx, rx, phymode):
    mode = {"ht": phymode == 1, "vht": phymode == 2, "he": phymode == 3}
    return {"tx": {"rate": tx * 1000, "mhz": 80, **mode}, "rx": {"rate": rx * 1000, "mhz": 80, **mode}}


def tell_through_iwinfo(entry, clients):
    """Puts the node's Wi-Fi behind the bus object of a stock system, with the same figures."""
    driver = entry.pop("driver")["interfaces"]
    devices, wireless = {}, {}
    for radio, prefix, uplink, band, mhz in ((0, "ra", "apcli0", "2g", 2437), (1, "rax", "apclix0", "5g", 5220)):
        wireless["radio%d" % radio] = {"_type": "wifi-device", "band": band}
        channel = driver[prefix + "0"]
        info = {"channel": channel["channel"], "frequency": mhz, "htmode": "HE80" if radio else "HE20",
                "noise": -95, "hwmode": "ax"}

        def add(name, mode, network, stations, busy):
            devices[name] = {"info": {"ssid": "Lab_" + network, "mode": mode, **info}, "assoclist": stations,
                             "survey": [{"mhz": mhz, "noise": -95, "active_time": 1000000, "busy_time": busy * 10000}]}
            wireless[name.replace("-", "_")] = {
                "_type": "wifi-iface", "device": "radio%d" % radio, "mode": "sta" if mode == "Client" else "ap",
                "network": network, "ssid": "Lab_" + network}

        for number, network in enumerate(("lan", "guest", "iot")):
            name = "%s%d" % (prefix, AP_DIGIT[number])
            add("phy%d-ap%d" % (radio, number), "Master", network,
                [{"mac": one["mac"].upper(), "signal": -50, "noise": -95, "inactive": 20,
                  **rates(one["tx"], one["rx"], one["phymode"])}
                 for one in clients if one["node"] == entry["device_id"] and one.get("interface") == name],
                channel["utilisation"])
        if uplink in driver:
            parent = driver[uplink]["uplink"]
            add("phy%d-sta0" % radio, "Client", "lan",
                [{"mac": parent["mac"].upper(), "signal": parent["rssi"], **rates(parent["tx"], parent["rx"], 3)}],
                driver[uplink]["utilisation"])
    entry["iwinfo"] = devices
    entry["config"] = {"telemetry": {"basic": {"wlan_driver": "iwinfo"}}, "wireless": wireless}
    temperature = "%d000\n" % driver["ra0"]["temperature"]
    entry["files"] = {**entry.get("files", {}), "/tmp/fakewifi.json": None,
                      **{"/sys/class/ieee80211/phy%d/device/hwmon/hwmon0/temp1_input" % phy: temperature
                         for phy in range(3)}}


def main(name, satellites, clients, iot):
    rng = random.Random(name.removesuffix("_iwinfo"))
    ids = ["%016X" % rng.getrandbits(64) for _ in range(satellites + 1)]
    scenario = {
        "name": name,
        "description": "1 + %d nodes, %d clients, %d of them IoT devices" % (satellites, clients, iot),
        "cloud": {"strategy": {"id": "lab-strategy-1", "content": "collect_interval_strategy1=15,"
                               "collect_interval_strategy2=1440,post_interval=240\n"}},
        "nodes": [node(rng, index, ids) for index in range(satellites + 1)],
    }
    members = [client(rng, number, ids, number >= clients - iot) for number in range(clients)]
    if name.endswith("_iwinfo"):
        for entry in scenario["nodes"]:
            tell_through_iwinfo(entry, members)
    text = json.dumps(scenario, indent=2)[:-2]
    lines = [json.dumps(member) for member in members]
    print(text + ',\n  "clients": [\n    ' + ",\n    ".join(lines) + "\n  ]\n}")


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    main(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4]) if len(sys.argv) > 4 else 0)
