/* Every name that QXRemConXfer.so exports to its host: entry points, version variables, the module object.
 *
 * A host loads the module with dlopen and looks the names up with dlsym; the QX_SYMBOL_* texts are the three that
 * carry the encoding of their argument types. All other symbols are the bare names. This header compiles as C and as
 * C++. (The members of CReportFileBase are exported too, for agents: reportfile/ReportFileBase.h.)
 *
 * Threads: the request functions, __threadbegin, __threadend, __handle_version and __free may be called on any number
 * of threads at once. CreateModule and DeleteModule run while no other call is in progress.
 * Failure: no exception leaves an entry point. A forced unwinding (thread cancellation) passes through.
 */
#ifndef QX_PROVIDER_MODULEEXPORTS_H
#define QX_PROVIDER_MODULEEXPORTS_H

#include "provider/KrxGenData.h"

#define QX_EXPORT __attribute__((visibility("default")))

#define QX_SYMBOL_CREATE_MODULE "_Z12CreateModulePv"
#define QX_SYMBOL_DELETE_MODULE "_Z12DeleteModulev"
#define QX_SYMBOL_PROVIDER_CLASS_FACTORY "_Z20ProviderClassFactoryPv"

#ifdef __cplusplus
class CKrxAdapterModule;

/* Creates a module object, makes it the one that the other entry points use, and returns 1; 0 when it could not be
 * created (pAdapterModule is then null). An earlier object is not deleted. `path` is the module's installation path;
 * it is not kept. The module calls this once itself while it is loaded. [load/unload] */
QX_EXPORT int CreateModule(void* path);

/* Deletes the module object, if there is one. The module calls this once itself while it is unloaded.
 * [load/unload] */
QX_EXPORT void DeleteModule();

/* A new module object, initialised but not made current; null when it could not be created. The caller owns it.
 * [any thread] */
QX_EXPORT CKrxAdapterModule* ProviderClassFactory(void* path);

extern "C" {
#else
struct CKrxAdapterModule; /* opaque in C */
typedef struct CKrxAdapterModule CKrxAdapterModule;

int CreateModule(void* path) __asm__(QX_SYMBOL_CREATE_MODULE);
void DeleteModule(void) __asm__(QX_SYMBOL_DELETE_MODULE);
CKrxAdapterModule* ProviderClassFactory(void* path) __asm__(QX_SYMBOL_PROVIDER_CLASS_FACTORY);
#endif

/* The module object that every entry point below uses without testing it; null before CreateModule, after
 * DeleteModule and when a creation failed. */
QX_EXPORT extern CKrxAdapterModule* pAdapterModule;

/* Request functions. `params` is the service's block, valid for the call. `input` is the request document as
 * NUL-terminated text; null counts as empty. `*reply` receives the reply document, to be freed with __free, or
 * null if there is no reply (the reply is not one well-formed document, memory ran out, the call failed with -1 before
 * it had a reply). If `reply` is null, the reply is dropped; the result is the same.
 *
 * Result: that of the operation; -1 also when `params` is null or the operation could not be completed.
 * [any thread] */

/* Identifies the module: <QXRemConXfer version="..." date="..." company="..." milestone="-"/>. Always 0. */
QX_EXPORT int What(const wcs_gendata* params, const char* input, char** reply);

/* Echoes `input` if it is well formed; otherwise the reply is null. Always 0. */
QX_EXPORT int Reflect(const wcs_gendata* params, const char* input, char** reply);

/* Returns a chunk of a report's records. 0: records; 1: no more records; 12: refused or not readable; -1: invalid
 * block. */
QX_EXPORT int GetReports(const wcs_gendata* params, const char* input, char** reply);

/* Lists the instance names of a report. 0: listed (for a names file of another version the reply is null); 12: refused,
 * or no names file; -1: invalid block. */
QX_EXPORT int GetReportInstanceNames(const wcs_gendata* params, const char* input, char** reply);

/* The service's worker thread starts to make calls. [any thread] */
QX_EXPORT void __threadbegin(void);

/* The service's worker thread makes no more calls. `user_data` is what the module left in the thread's element 1 (may
 * be null); it is freed. [any thread] */
QX_EXPORT void __threadend(void* user_data);

/* 30400: the frame's version 3.4.0 in the encoding of krx_gendata.version. [any thread] */
QX_EXPORT int __handle_version(void);

/* Announces that the service is about to stop. The module keeps serving. [any thread] */
QX_EXPORT void __stoprequest(void);

/* Frees a reply text; null is allowed. [any thread] */
QX_EXPORT void __free(void* p);

/* Version information. A host may point the variables elsewhere, also to null; the next CreateModule reads them again.
 * A host that is linked with the module instead of loading it must be compiled with -fPIC: otherwise the linker gives
 * it copies of the variables (pAdapterModule, too) that the module does not use. [load/unload] */
QX_EXPORT extern const char* DreQXObjectName;           /* "QXRemConXfer" */
QX_EXPORT extern const char* DreQXObjectVersion;        /* the build's version, such as "0.1.0" */
QX_EXPORT extern const char* DreQXObjectVendor;         /* the maker */
QX_EXPORT extern const char* DreQXObjectDate;           /* "2026/01/31-10:20" */
QX_EXPORT extern const char* DreQXObjectMilestone;      /* "-" */
QX_EXPORT extern const char* DreQXObjectPath;           /* installation path, passed to CreateModule at load */
QX_EXPORT extern const char* DreQXObjectDescription;    /* "Quaxel QXRemConXfer Provider" */
QX_EXPORT extern const char* DreQXObjectProductName;    /* the product that the module belongs to */
QX_EXPORT extern const char* DreQXObjectLegalCopyright; /* copyright line */

/* The types of the entry points: what dlsym returns is cast to them. */
typedef int (*QxRequestFunction)(const wcs_gendata* params, const char* input, char** reply);
typedef void (*QxThreadBeginFunction)(void);
typedef void (*QxThreadEndFunction)(void* user_data);
typedef int (*QxHandleVersionFunction)(void);
typedef void (*QxStopRequestFunction)(void);
typedef void (*QxFreeFunction)(void* p);
typedef int (*QxCreateModuleFunction)(void* path);
typedef void (*QxDeleteModuleFunction)(void);
typedef CKrxAdapterModule* (*QxProviderClassFactoryFunction)(void* path);

#ifdef __cplusplus
}
#endif

#endif
