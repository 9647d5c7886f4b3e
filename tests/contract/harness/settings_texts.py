"""The texts that the settings client writes to the log when the settings daemon fails it."""

from __future__ import annotations

_CLASS = "Settingsd::SettingsDaemonDbusHandler"
_STRING = "std::__cxx11::basic_string<char>"
_WITH = f"int32_t = int; std::__cxx11::string = {_STRING}]"

GET_BOOL = f"static int32_t {_CLASS}::GetSetting(const string&, const string&, T&) [with T = bool; {_WITH}"
GET_STRING = f"static int32_t {_CLASS}::GetSetting(const string&, const string&, T&) [with T = {_STRING}; {_WITH}"
SET_STRING = f"static int32_t {_CLASS}::SetSetting(const string&, const string&, T) [with T = {_STRING}; {_WITH}"
PROPERTIES_CHANGED = f"static int32_t {_CLASS}::PropertiesChanged(sd_bus_message*, void*, sd_bus_error*)"

ABSENT = "The name com.vantora.common.Settings1 was not provided by any .service files"
MISSING = "Unknown property or interface."


def get_failed(key: str, text: str) -> list[tuple[str, str]]:
    """The two lines of a setting that could not be read."""
    function = GET_BOOL if key in ("enabled", "killWifiOnBoot") else GET_STRING
    return [
        ("err", f"{function}: ERROR sdbus_utils::GetProperty {key} failed {text}"),
        ("warning", f"Failed to get '{key}' setting"),
    ]


def set_failed(key: str, text: str) -> list[tuple[str, str]]:
    """The two lines of a setting that could not be written."""
    return [
        ("err", f"{SET_STRING}: ERROR sdbus_utils::SetProperty {key} failed {text}"),
        ("warning", f"Failed to set '{key}' setting"),
    ]


def config_dump(enabled: str, mode: str, band: str, ssid: str) -> list[tuple[str, str]]:
    """The eight lines of the configuration as it is written to the log."""
    line = ("info", "-" * 38)
    return [
        line,
        ("info", "WiFi config dump"),
        line,
        ("info", f"Enabled:          {enabled}"),
        ("info", f"Mode:             {mode}"),
        ("info", f"Frequency band:   {band}"),
        ("info", f"Host SSID:        {ssid}"),
        ("info", "Client SSID:      "),
    ]
