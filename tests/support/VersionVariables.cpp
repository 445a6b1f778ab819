// Defines the version variables for programs that link the provider library without the module's load-time objects.
#include "provider/ModuleExports.h"

const char* DreQXObjectName = "QXRemConXfer";
const char* DreQXObjectVersion = "1.2.3";
const char* DreQXObjectVendor = "Norrlek";
const char* DreQXObjectDate = "2026/01/31-10:20";
const char* DreQXObjectMilestone = "-";
const char* DreQXObjectPath = "/opt/norrlek/QuaxelSuite/KRX/Provider/QXRemConXfer";
const char* DreQXObjectDescription = "Quaxel QXRemConXfer Provider";
const char* DreQXObjectProductName = "QuaxelSuite";
const char* DreQXObjectLegalCopyright = "Copyright (C) Norrlek";
