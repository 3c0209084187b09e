// The certificates that the cloud's own is held against.
#pragma once

#include <string>

// Reads option `telemetry`.`cloud`.`ca_file`, an absolute path; a value that is none costs a line and counts
// as missing. Then looks at the file that transfers will use: one line when it will not serve.
void telemetry_load_ca_file();
// Real path of the file that a transfer uses now: the option's, whatever it holds; without the option the
// built-in path, or where nothing is there the system's bundle.
std::string telemetry_ca_file();
// Whether the option names the file: who names certificates wants no others trusted, as those of the
// directory that a libcurl may have built in.
bool telemetry_ca_file_is_configured();
