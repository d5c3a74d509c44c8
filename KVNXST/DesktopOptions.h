// Session actions that the service asks for through the agent's command line.
#pragma once

// Ends the session: ExitWindowsEx with EWX_FORCE when bForce is non-zero, else EWX_LOGOFF, reason 0.
// Returns ExitWindowsEx's result (non-zero when accepted).
int Logoff(int bForce);

// Locks the workstation; where the system cannot, starts the screen saver in its place. Always 1.
int LockWorkstation();
