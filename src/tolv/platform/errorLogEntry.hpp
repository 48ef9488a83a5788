// Public header: the platform's error-log service.
#ifndef TOLV_PLATFORM_ERRORLOGENTRY_HPP
#define TOLV_PLATFORM_ERRORLOGENTRY_HPP

#include "tolv/vex/tolvExport.hpp"

/// One record of the error log.
class TOLV_EXPORT ErrorLogEntry
{
  public:
    ErrorLogEntry();
    ErrorLogEntry(unsigned int i_v0, unsigned int i_v1, unsigned int i_v2,
                  unsigned int i_v3, unsigned int i_v4, unsigned int i_v5,
                  unsigned int i_v6, unsigned int i_v7, unsigned int i_v8,
                  unsigned int i_v9, unsigned int i_v10, unsigned int i_v11,
                  unsigned int i_v12, unsigned int i_v13, unsigned int i_v14);

    void AddTrace(const char* i_component, unsigned int i_bytes);
    void setSev(unsigned int i_severity);
    void commit(unsigned int i_a, unsigned int i_b, unsigned int i_c,
                unsigned int i_d);
    unsigned int flattenedSize() const;
    unsigned int flatten(void* o_buffer, unsigned int i_room) const;
    bool unflatten(const void* i_buffer, unsigned int i_room);
};

#endif
