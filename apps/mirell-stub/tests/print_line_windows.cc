// The reference for the stub's timing: a Windows program that only prints one line.
#include <windows.h>

int wmain() {
  static const char kLine[] = "rtspt://127.0.0.1:8554/s/ABCDEFGHJKMN\r\n";
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), kLine, sizeof(kLine) - 1, &written, nullptr);
  return 0;
}
