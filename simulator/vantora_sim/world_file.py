from __future__ import annotations
import json
from pathlib import Path
from . import places
from .plan import Network, Plan, Visitor

class WorldFileError(Exception):
    pass

def read_world(name: str) -> Plan:
    path = Path(name) if "/" in name or name.endswith(".json") else places.worlds() / f"{name}.json"
    data = json.loads(path.read_text())
    return Plan(data["name"], {k: str(v) for k, v in data["device"].items()},
                [Network(**{**n, "ssid": n["ssid"].encode()}) for n in data["networks"]],
                [Visitor(**v) for v in data["stations"]], data.get("settings", {}))
