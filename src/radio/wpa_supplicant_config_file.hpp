#pragma once

#include <string>

/**
 * wpa_supplicant's configuration file for a start-up from file. The daemon configures networks over D-Bus
 * only and calls none of these. All return true on success.
 */

/**
 * Writes the file with wpa_passphrase(8), by a command line that is cut at 255 characters and in which SSID
 * and passphrase stand unescaped between single quotes: for trusted texts only.
 *
 * Logs "%s: SSID generated from passphrase successfully." (INFO) or
 * "%s: Unable to generate ssid from passphrase, error: %d" (ERR).
 */
bool wpa_supplicant_gen_passphrase(const std::string& ssid, const std::string& passphrase);

/**
 * Writes the file for an open network.
 *
 * Logs "Unable to write to wpa_supplicant configuration file" (ERR).
 */
bool wpa_supplicant_write_open_config(const std::string& ssid);

/** Writes the file by the one or, with an empty passphrase, by the other of the two. */
bool wpa_supplicant_configure(const std::string& ssid, const std::string& passphrase);
