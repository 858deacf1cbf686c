/* Definitions that all other headers of the host interface use. */
#ifndef VQ_PLATFORM_H
#define VQ_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include <urcu/list.h>

#ifdef __cplusplus
#define VQ_EXTERN_C_BEGIN extern "C" {
#define VQ_EXTERN_C_END }
/* Every enumeration of the interface has 32 bits and may hold any 32-bit value. In C this is so without help. In C++
 * only an enumeration with a fixed underlying type may hold values that it does not name. */
#define VQ_ENUM32 : uint32_t
#else
#define VQ_EXTERN_C_BEGIN
#define VQ_EXTERN_C_END
#define VQ_ENUM32
#endif

/* The version of the host interface: the services, their contracts, and the layout of the types. It changes if a host
 * must be changed, or at least compiled again, for a newer module. A host can compare it with the version that it was
 * written for and refuse to compile (#if, #error). */
#define VQ_HOST_INTERFACE_VERSION 1

/* A condition that the compiler checks. Host and module are compiled apart: options that change the size of
 * enumerations or the padding of structures (-fshort-enums, -fpack-struct, #pragma pack) would make them misunderstand
 * each other, and nothing would tell at run time. So every type that both use has its layout checked where it is
 * declared. */
#ifdef __cplusplus
#define VQ_STATIC_ASSERT(Condition, Text) static_assert(Condition, Text)
#else
#define VQ_STATIC_ASSERT(Condition, Text) _Static_assert(Condition, Text)
#endif
#define VQ_ASSERT_SIZE(Type, Size) VQ_STATIC_ASSERT(sizeof(Type) == (Size), #Type " must have " #Size " bytes")
#define VQ_ASSERT_OFFSET(Type, Member, Offset) \
    VQ_STATIC_ASSERT(offsetof(Type, Member) == (Offset), #Member " of " #Type " must be at offset " #Offset)
#define VQ_ASSERT_ENUM32(Type) VQ_STATIC_ASSERT(sizeof(Type) == 4, #Type " must have 32 bits: is -fshort-enums set?")

/* Marks a function that formats like printf: the index of the format and of its first argument, counted from 1. */
#define VQ_PRINTF_LIKE(FormatIndex, FirstArgument) __attribute__((format(printf, FormatIndex, FirstArgument)))

/* Other C libraries define FALSE and TRUE as macros. Here they are values of BOOL. */
#undef FALSE
#undef TRUE

typedef enum VQ_ENUM32 { FALSE = 0, TRUE = 1 } BOOL;

/* 0 or more: success. A negated errno value: failure. */
typedef int32_t VQ_ERR_T;

/* Link of a circular doubly linked list. The head of an empty list points at itself. */
typedef struct cds_list_head VQ_PLATFORM_LIST_HEAD;
typedef VQ_PLATFORM_LIST_HEAD VQ_LIST_HEAD;

VQ_ASSERT_ENUM32(BOOL);
VQ_ASSERT_SIZE(VQ_LIST_HEAD, 2 * sizeof(void *));

#endif
