// The question put to the user at the console when a viewer asks for a connection that needs
// consent. Runs in a child process of its own, started with "-Permission <port> <address family>".
#pragma once

// Asks the service on nPort (address family nAfType) for the request, shows the dialog and sends
// the answer back. 1 when the dialog was shown, 0 otherwise.
int CreatePermissionDialog(int nPort, int nAfType);
