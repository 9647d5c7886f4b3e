#pragma once

#include <cstddef> // wpa_ctrl.h needs size_t
#include <memory>

#include <wpa_ctrl.h>

#include "support/sd_bus_owners.hpp"

/** A control connection to hostapd or wpa_supplicant; closing it also ends an attachment. */
using WpaCtrlPtr = std::unique_ptr<wpa_ctrl, ReleaseWith<wpa_ctrl_close>>;
