// Installs the certificate layer's part in the key code (keys/cert_key_hooks.h).
// Every program and test harness that reads or writes keys calls this once at
// start-up; calling it again is harmless.
#pragma once

void cert_key_layer_install();
