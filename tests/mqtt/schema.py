"""What Home Assistant takes as discovery, from its published names of fields."""

from __future__ import annotations

import re

SWITCH_CLASSES = {"outlet", "switch"}
SENSOR_CLASSES = {
    "battery", "battery_charging", "carbon_monoxide", "cold", "connectivity", "door",
    "garage_door", "gas", "heat", "light", "lock", "moisture", "motion", "moving", "occupancy",
    "opening", "plug", "power", "presence", "problem", "running", "safety", "smoke", "sound",
    "tamper", "update", "vibration", "window",
}  # fmt: skip

Check = tuple[str, type]


def _fields(where: str, value: object, needed: dict[str, type], optional: dict[str, type]) -> dict:
    if not isinstance(value, dict):
        raise ValueError(f"{where} is no object")
    for name in needed:
        if name not in value:
            raise ValueError(f"{where} lacks {name}")
    for name, content in value.items():
        kind = needed.get(name) or optional.get(name)
        if kind is None:
            raise ValueError(f"{where} has {name}, which nobody knows")
        if not isinstance(content, kind) or content in ("", [], {}):
            raise ValueError(f"{where}: {name} is {content!r}")
    return value


def _check_common(where: str, document: dict) -> None:
    _fields(f"{where}.dev", document["dev"], {"ids": list, "name": str}, {"sw": str})
    _fields(f"{where}.o", document["o"], {"name": str, "sw": str}, {})
    if document["avty_mode"] != "all":
        raise ValueError(f"{where}: both availabilities must hold")
    for entry in document["avty"]:
        _fields(f"{where}.avty", entry, {"t": str}, {})


def _check_pin(where: str, platform: str, pin: dict, more: dict[str, type]) -> None:
    needed: dict[str, type] = {"uniq_id": str, "name": str, "stat_t": str, **more}
    if platform == "switch":
        needed["cmd_t"] = str
    elif platform != "binary_sensor":
        raise ValueError(f"{where}: nobody knows the platform {platform}")
    _fields(where, pin, needed, {"dev_cla": str})
    classes = SWITCH_CLASSES if platform == "switch" else SENSOR_CLASSES
    if pin.get("dev_cla", next(iter(classes))) not in classes:
        raise ValueError(f"{where}: a {platform} has no class {pin['dev_cla']}")
    for topic in ("stat_t", "cmd_t"):
        if re.search(r"[+#\0]", pin.get(topic, "")):
            raise ValueError(f"{where}: {topic} is no topic")


COMMON: dict[str, type] = {"dev": dict, "o": dict, "avty": list, "avty_mode": str}


def check_device(document: dict) -> None:
    """One message for all pins. Raises ValueError."""
    _fields("device", document, {**COMMON, "cmps": dict}, {})
    _check_common("device", document)
    for key, component in document["cmps"].items():
        if set(component) == {"p"}:  # To be removed.
            continue
        _check_pin(key, component.get("p", ""), component, {"p": str})


def check_component(platform: str, document: dict) -> None:
    """One message for one pin. Raises ValueError."""
    _check_pin("component", platform, document, COMMON)
    _check_common("component", document)
