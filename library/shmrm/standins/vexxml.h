// The node's XML configuration: <install path>/etc/vex.xml, read through named policies.
// A policy is the element /root/<policy>; keys are absolute paths inside a loaded policy.
// Every call returns 0 on success and a negative code on failure.
#pragma once

namespace vex {

inline constexpr int kXmlTypeInt32 = 1;

enum XmlError : int {
    kXmlNotStarted = -1,     // xmllib_init was not called, or the configuration is not loaded
    kXmlNoFile = -2,         // the configuration file is missing or unreadable
    kXmlMalformed = -3,      // the file is not well-formed XML
    kXmlNoPolicy = -4,       // no such policy, or it is not loaded
    kXmlNoKey = -5,          // the key names no element of a loaded policy
    kXmlBadValue = -6,       // the text is not a whole decimal number in the signed 32-bit range
    kXmlBadArgument = -7,    // a null argument, an unknown value type, or a value length below 4
    kXmlNoInstallPath = -8,  // the install path cannot be obtained
};

int xmllib_init(const char* module);
int xmllib_load_config(int flags);
int xmllib_load_policy(const char* policy);
// type kXmlTypeInt32: *len must be at least 4; the value is written as a 32-bit integer.
int xmllib_get_value(const char* key, int type, void* value, int* len);
int xmllib_unload_policy(const char* policy);
int xmllib_unload_config();
int xmllib_term();

}  // namespace vex
