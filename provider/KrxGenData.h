/* The request parameter block as the KRX service lays it out in memory, and the security structures inside it.
 *
 * The block is a wire format between the service and the module in one process: native byte order (little-endian),
 * 64-bit pointers. The service owns every byte of it. The module reads it and writes one slot only, the value of the
 * type 3 element with index 1.
 *
 *   krx_gendata, elements:
 *     index 1  (provider data)    value is the pointer that the module may overwrite
 *     index 2  (thread id)        value -> 32-bit number
 *     index 3  (function id)      value -> "GetReports"
 *     index 14 (connection)       value -> krx_nested_block, next_block -> krx_nested_block ...
 *     index 61 (security)         value -> krx_element_list, elements:
 *       index 65 (validation)       value -> krx_validation_data
 *                                            -> krx_authorization_data -> krx_department -> privilege names
 *
 * This header compiles as C and as C++. It has no functions: the module loads values with memcpy, so a host need not
 * align them. docs/provider-interface.md shows the bytes of a whole block.
 */
#ifndef QX_PROVIDER_KRXGENDATA_H
#define QX_PROVIDER_KRXGENDATA_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* Types of elements: how the value field is to be read. Other codes belong to the host; the module reads an element of
 * such a type as one without a value. */
enum krx_type {
  kKrxTypePointer = 3,  /* the value field itself is the datum; it may be overwritten */
  kKrxTypeUint8 = 4,    /* value points to one byte */
  kKrxTypeUint16 = 5,   /* value points to a 16-bit word */
  kKrxTypeUint32 = 6,   /* value points to a 32-bit word */
  kKrxTypeString = 8,   /* value points to a NUL-terminated byte string, or is null */
  kKrxTypeNested = 512, /* value points to a krx_nested_block, or is null */
};

/* Identifiers of elements. 0 identifies nothing. */
enum krx_index {
  kKrxProviderData = 1,         /* pointer: the module's per-thread state */
  kKrxThreadId = 2,             /* number: the service's worker thread that makes the call, never 0 */
  kKrxFunctionId = 3,           /* string: name of the called function */
  kKrxApplicationId = 5,        /* string: the calling application */
  kKrxZipCompression = 6,       /* number: reply compression, 0 = off */
  kKrxZipLevel = 7,             /* number: compression level */
  kKrxSslUsage = 9,             /* number: whether the client's connection uses SSL */
  kKrxKeepAlive = 10,           /* number: keep-alive connection, 0 = no */
  kKrxRequestTimeout = 11,      /* number: request time-out */
  kKrxConnection = 14,          /* nested block: the connection, its requestor and credentials */
  kKrxRequestorAddress = 15,    /* string, inside 14: address of the client */
  kKrxCredentialMarker = 16,    /* inside 14's chain: a 16-bit word, 1 in the block that holds the credentials */
  kKrxCredentials = 19,         /* inside that block: value points to a krx_element_list of credentials */
  kKrxBasicAuthUser = 25,       /* credential: user id from HTTP basic authentication */
  kKrxBasicAuthPassword = 26,   /* credential: password from HTTP basic authentication */
  kKrxDomain = 29,              /* credential: domain name given to the service */
  kKrxUser = 30,                /* credential: user id given to the service */
  kKrxPassword = 31,            /* credential: password given to the service */
  kKrxSecurityInterceptor = 61, /* value points to a krx_element_list */
  kKrxValidationData = 65,      /* inside 61: value points to a krx_validation_data */
  kKrxRequestPath = 78,         /* string */
  kKrxRequestMode = 79,         /* string */
  kKrxRequestMethod = 80,       /* string */
};

/* One parameter, 40 bytes. The fields of the host may have any value. */
struct krx_element {
  uint64_t host_field_0;
  int32_t index; /* enum krx_index */
  uint32_t host_field_12;
  uint32_t host_field_16;
  uint32_t host_field_20;
  int32_t type; /* enum krx_type */
  uint32_t padding_28;
  void* value;
};

/* The block's header, 24 bytes; further fields of the host may follow it. */
struct krx_gendata {
  uint32_t version;      /* major * 10000 + minor * 100 + patch: 3.4.0 is 30400 */
  int32_t size;          /* of the whole block, in bytes */
  char tag[4];           /* "KRX" and its NUL */
  int32_t element_count; /* entries in `elements` */
  struct krx_element** elements;
};

/* The name under which the exported functions take the block. */
typedef struct krx_gendata wcs_gendata;

/* Value of a type 512 element, 24 bytes. */
struct krx_nested_block {
  int32_t element_count;
  uint32_t padding_4;
  struct krx_element** elements;
  struct krx_nested_block* next_block; /* next block of the same chain, or null */
};

/* A nested block without a chain, 16 bytes: the security interceptor structure and the credential list. */
struct krx_element_list {
  int32_t element_count;
  uint32_t padding_4;
  struct krx_element** elements;
};

/* A department of the caller, 24 bytes. */
struct krx_department {
  const char* name; /* may be null */
  int32_t privilege_count;
  uint32_t padding_12;
  const char** privileges;
};

/* What the security layer grants the caller, 24 bytes. */
struct krx_authorization_data {
  const char* user_id; /* may be null */
  int32_t department_count;
  uint32_t padding_12;
  struct krx_department** departments;
};

/* Value of element 65, 16 bytes. */
struct krx_validation_data {
  uint64_t host_field_0;
  struct krx_authorization_data* authorization; /* null grants nothing */
};

static_assert(sizeof(void*) == 8, "the block is a 64-bit layout");

static_assert(sizeof(struct krx_gendata) == 24, "header");
static_assert(offsetof(struct krx_gendata, version) == 0, "header");
static_assert(offsetof(struct krx_gendata, size) == 4, "header");
static_assert(offsetof(struct krx_gendata, tag) == 8, "header");
static_assert(offsetof(struct krx_gendata, element_count) == 12, "header");
static_assert(offsetof(struct krx_gendata, elements) == 16, "header");

static_assert(sizeof(struct krx_element) == 40, "element");
static_assert(offsetof(struct krx_element, index) == 8, "element");
static_assert(offsetof(struct krx_element, type) == 24, "element");
static_assert(offsetof(struct krx_element, value) == 32, "element");

static_assert(sizeof(struct krx_nested_block) == 24, "nested block");
static_assert(offsetof(struct krx_nested_block, element_count) == 0, "nested block");
static_assert(offsetof(struct krx_nested_block, elements) == 8, "nested block");
static_assert(offsetof(struct krx_nested_block, next_block) == 16, "nested block");

static_assert(sizeof(struct krx_element_list) == 16, "element list");
static_assert(offsetof(struct krx_element_list, element_count) == 0, "element list");
static_assert(offsetof(struct krx_element_list, elements) == 8, "element list");

static_assert(sizeof(struct krx_validation_data) == 16, "validation data");
static_assert(offsetof(struct krx_validation_data, authorization) == 8, "validation data");

static_assert(sizeof(struct krx_authorization_data) == 24, "authorisation data");
static_assert(offsetof(struct krx_authorization_data, user_id) == 0, "authorisation data");
static_assert(offsetof(struct krx_authorization_data, department_count) == 8, "authorisation data");
static_assert(offsetof(struct krx_authorization_data, departments) == 16, "authorisation data");

static_assert(sizeof(struct krx_department) == 24, "department");
static_assert(offsetof(struct krx_department, name) == 0, "department");
static_assert(offsetof(struct krx_department, privilege_count) == 8, "department");
static_assert(offsetof(struct krx_department, privileges) == 16, "department");

#endif
