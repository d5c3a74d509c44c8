// The "-ValidateCert" mode: asks the user whether the pending certificate may be trusted.
#pragma once

// True when the certificate is accepted (remembered before, or accepted in the dialog).
bool ValidateCertDialog();
