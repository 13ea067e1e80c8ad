// The configuration bundle: 48-byte header, MD5 of the plain body, RC4 body.
#pragma once

bool build_config_bundle();
bool verify_config_bundle();
// Action 1: send the configuration; returns the result code.
int send_configuration(int fd);
// Action 3: receive, verify and install a configuration; returns the code.
int receive_configuration(int fd);
