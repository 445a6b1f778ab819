#include "debug/Debug.h"

void CDebug::Print(std::uint32_t, const char*, ...) {}
void CDebug::PrintAlways(const char*, ...) {}
bool CDebug::Init(const char*) { return false; }
void CDebug::SetApplInitDone() {}
