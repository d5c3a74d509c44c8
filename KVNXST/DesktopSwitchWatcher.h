// Two threads that tell the service whenever the input desktop switches (normal desktop or screen
// saver), with message 50007. DesktopChangeThread turns the system's desktop-switch signal into
// the tray window's handshake event; DesktopHaveChangedThread reports the state each time that
// event is set. Both take the tray window's IKvWatcherLink, return 0, and nobody joins them: they
// end with the connection thread, on the process stop event, or when the window lets go of the
// thread handle.
#pragma once

unsigned int __stdcall DesktopChangeThread(void* pTrayWindow);
unsigned int __stdcall DesktopHaveChangedThread(void* pTrayWindow);
