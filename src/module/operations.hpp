// The entries of the interpreter's tables, each defined in the file of its subject.
#pragma once

#include "module/python.hpp"

namespace health {

// Of the class

// recording.cpp: the operations of every tool call. None of them touches the database, and one
// that finds the tool known allocates nothing but its answer and an error's text that is new.
extern const PyMethodDef kRecordCall;
extern const PyMethodDef kRecordSuccess;
extern const PyMethodDef kRecordError;
extern const PyMethodDef kIsDisabled;
// health_mirror.cpp, usage_mirror.cpp
extern const PyMethodDef kLoadHealth;
extern const PyMethodDef kFlushHealth;
extern const PyMethodDef kLoadUsage;
extern const PyMethodDef kFlushUsage;
// records.cpp: the memory as Python sees it, in new containers with copies
extern const PyGetSetDef kState;
extern const PyGetSetDef kDirty;
extern const PyGetSetDef kUsage;
extern const PyGetSetDef kUsageDirty;
// reports.cpp
extern const PyMethodDef kGetHealthSummary;

// Of the module

// health_mirror.cpp, usage_mirror.cpp
extern const PyMethodDef kSqliteTime;
extern const PyMethodDef kEpoch;
extern const PyMethodDef kKnown;
// reports.cpp
extern const PyMethodDef kPerformanceStats;
extern const PyMethodDef kThreadCensusReport;
// collaborators.cpp
extern const PyMethodDef kModuleAttribute;

}  // namespace health
