// The engine's configuration, its auto-bypass table, and the bundle of both with the NACK log for support.
#pragma once

// Prints the configuration in brief. With b_show_detail, prints all of it and the configuration file as it is on disk.
// Prints nothing when the engine has published no configuration.
void show_config(bool b_show_detail);

// Prints the auto-bypass table in the engine library's own form.
void show_kav_bypass(bool b_show_detail);

// Prints the brief configuration, the NACK log and the auto-bypass table in full.
void show_tech_support();
