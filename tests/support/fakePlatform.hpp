// A platform that records and answers what a test says.
#ifndef TOLV_TESTS_SUPPORT_FAKEPLATFORM_HPP
#define TOLV_TESTS_SUPPORT_FAKEPLATFORM_HPP

#include <string>
#include <vector>

/// A program that has fakePlatform.cpp among its sources calls these services
/// in place of those of the library `tolvplatform`.
///
/// Every service leaves STRANGE_ERRNO in errno, so that a caller which has to
/// preserve errno is seen to do it. All state is zero before the first line of
/// any constructor runs: calls made while the program is loaded are recorded.
namespace fakePlatform
{

constexpr int STRANGE_ERRNO = 4242;
constexpr unsigned int MOST_VALUES = 15;

/// One call of a service.
struct Call
{
    const char* service; // operation, for example "RegistryRead"
    const char* name;    // key, trace buffer, component or format, or null
    const void* target;  // descriptor or buffer, or null
    const void* entry;   // the error-log entry that was called, or null
    unsigned int values[MOST_VALUES]; // remaining arguments, in order
};

/// Every call since the program was loaded or forgetCalls(), oldest first.
///
/// Threads: any, as the services themselves.
std::vector<Call> calls();

/// The calls of one service only.
std::vector<Call> callsOf(const std::string& i_service);

void forgetCalls();

/// What RegistryRead() does and returns. Null: -1 with the buffer untouched.
extern int (*g_RegistryRead)(const std::string& i_key, unsigned char* o_byte);

/// What TraceBufferReadDiff() does and returns. Null: -1 with the buffer
/// untouched.
extern int (*g_TraceBufferReadDiff)(unsigned char* o_buffer);

/// Size in bytes of the flat form of every error-log entry, which consists of
/// FLAT_BYTE only.
extern unsigned int g_FlattenedSize;
constexpr unsigned char FLAT_BYTE = 0x45;

/// Whether ErrorLogEntry::unflatten() refuses what it is given.
extern bool g_RefuseEntry;

/// What the n-th call of TraceBufferInit() puts into the descriptor, n from 0.
/// The call itself FAILS with -1: its result is of no interest to the library.
constexpr int FIRST_DESCRIPTOR = 7001;

} // namespace fakePlatform

#endif
