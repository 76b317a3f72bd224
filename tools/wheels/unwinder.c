// Stands for the system's libgcc_s when a wheel is linked. glibc ends a thread (pthread_exit) with that library's
// unwinder, which hands its state to the C++ runtime of each frame that it passes: that has to read it with the
// same library.
#define UNWINDER(name) \
  void name(void) {}
UNWINDER(_Unwind_Backtrace)
UNWINDER(_Unwind_DeleteException)
UNWINDER(_Unwind_ForcedUnwind)
UNWINDER(_Unwind_GetCFA)
UNWINDER(_Unwind_GetDataRelBase)
UNWINDER(_Unwind_GetGR)
UNWINDER(_Unwind_GetIP)
UNWINDER(_Unwind_GetIPInfo)
UNWINDER(_Unwind_GetLanguageSpecificData)
UNWINDER(_Unwind_GetRegionStart)
UNWINDER(_Unwind_GetTextRelBase)
UNWINDER(_Unwind_RaiseException)
UNWINDER(_Unwind_Resume)
UNWINDER(_Unwind_Resume_or_Rethrow)
UNWINDER(_Unwind_SetGR)
UNWINDER(_Unwind_SetIP)
