// The question put to the user at the console when a viewer asks for a connection that needs
// consent. Runs in a child process of its own, started with "-Permission <port> <address family>".
#pragma once

// Asks the service on nPort (address family nAfType) for the request, shows the dialog and sends
// the answer back. 1 when the dialog was shown, 0 otherwise.
int CreatePermissionDialog(int nPort, int nAfType);

// Starts the agent again as " -Permission <nPort> <nAfType>" so the question has a process of its
// own. 1 when the child was started.
int ExecutePermission(int nPort, int nAfType);
