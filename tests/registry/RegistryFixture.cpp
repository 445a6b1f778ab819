#include "tests/registry/RegistryFixture.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace qx::test {

std::string Dump(const CRegistryNode& key) {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  key.dumpNode(stream);
  fclose(stream);
  std::string dumped(text, size);
  std::free(text);
  return dumped;
}

bool Restore(CRegistryNode& key, std::string_view text) {
  FILE* stream = text.empty() ? fopen("/dev/null", "r")
                              : fmemopen(const_cast<char*>(text.data()), text.size(), "r");  // NOLINT: read only
  const bool result = key.restoreNode(stream);
  fclose(stream);
  return result;
}

std::string Reread(std::string_view text) {
  CRegistryNode key;
  (void)Restore(key, text);
  return Dump(key);
}

// Tries to take the mutex, which is the first field of the lock.
bool IsHeld(const CRegistryNode& key) {
  auto* mutex = reinterpret_cast<pthread_mutex_t*>(&key.Lock());
  if (pthread_mutex_trylock(mutex) != 0) return true;
  pthread_mutex_unlock(mutex);
  return false;
}

RegistryTest::RegistryTest() : place_("TMPDIR", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR")) {
  registry::ResetRegistry(dir_.Path().c_str());
}

}  // namespace qx::test
