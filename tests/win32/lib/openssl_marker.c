/* A DLL that records that it was loaded: its entry point creates
   C:\lindqvar-openssl-marker. Planted where OpenSSL could look for a
   configuration, a provider or an engine, it shows whether a program loaded
   anything from there. */
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  (void)instance;
  (void)reserved;
  if (reason == DLL_PROCESS_ATTACH) {
    HANDLE h = CreateFileA("C:\\lindqvar-openssl-marker", GENERIC_WRITE, 0, NULL, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, NULL);
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
  }
  return TRUE;
}

/* rundll32's entry, for the check that the marker works at all. */
__declspec(dllexport) void CALLBACK Mark(HWND w, HINSTANCE i, LPSTR c, int s) {
  (void)w; (void)i; (void)c; (void)s;
}
