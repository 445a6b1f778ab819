// Loads and unloads QXRemConXfer.so: the objects that are made with the module and destroyed with it, in this order:
//
//   load    1. Debug is constructed, before every object of any other source, because these may trace.
//           2. Debug is initialised; if tracing is on, the log gets its header.
//           3. The module object is created.
//           4. The trace facility learns that initialisation is over: when its log wraps later, what is before this
//           place in the log is kept.
//   unload  5. ThisProvider deletes the module object.
//           6. Debug is destroyed, after every object of any other source.
//
// The version variables are constant-initialised: they have their values before step 1.
#include "debug/Debug.h"
#include "provider/BuildDate.h"
#include "provider/KrxAdapterModule.h"
#include "provider/ModuleExports.h"

const char* DreQXObjectName = "QXRemConXfer";
const char* DreQXObjectVersion = QX_VERSION;
const char* DreQXObjectVendor = "Norrlek";
const char* DreQXObjectDate = QX_BUILD_DATE;
const char* DreQXObjectMilestone = "-";
const char* DreQXObjectPath = "/opt/norrlek/QuaxelSuite/KRX/Provider/QXRemConXfer";
const char* DreQXObjectDescription = "Quaxel QXRemConXfer Provider";
const char* DreQXObjectProductName = "QuaxelSuite";
const char* DreQXObjectLegalCopyright = "Copyright (C) Norrlek";

__attribute__((init_priority(101))) CDebug Debug;

// Deletes the module object when the library is unloaded.
class ProviderDLL {
 public:
  ProviderDLL() {
    StartTracing();
    // The path is not changed. The type of the entry point has no const, because it is older than const.
    (void)CreateModule(const_cast<char*>(DreQXObjectPath));  // a failure leaves pAdapterModule null for the host to see
    Debug.SetApplInitDone();
  }
  ~ProviderDLL() { DeleteModule(); }
  ProviderDLL(const ProviderDLL&) = delete;
  ProviderDLL& operator=(const ProviderDLL&) = delete;

 private:
  static void StartTracing();
};

void ProviderDLL::StartTracing() {
  if (!Debug.Init("QXRemConXfer")) return;  // the system log has the reason; the module runs without traces
  if (Debug.IsActive()) Debug.WriteLogHeader(CDebug::kTargetLogFile);
}

ProviderDLL ThisProvider;
