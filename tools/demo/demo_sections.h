// The demo's sections, each in a file of its own; each returns 0 on success.
#pragma once

namespace demo {

// Packets between two threads over loopback TCP.
int runPacketDemo();
// A game's debug-monitor output watched by dm-monitor in a second process.
int runMonitorDemo();
// The pipe "echo" served to dm-pipe-echo in a second process.
int runPipeDemo();
// The game reads, writes and lists the PC's files through dm-fileserver in a second process.
int runFileServerDemo();
// The developer console replayed from a keystroke script by dm-console into a PNG.
int runConsoleDemo();

}  // namespace demo
