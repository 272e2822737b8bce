// Requests for capture jobs.
#pragma once

#include "jobs/CaptureJob.h"
#include "jobs/InputField.h"
#include "resources/ResourceMgr.h"

#include <initializer_list>
#include <vector>

// The fields of a request, each name=value.
inline std::vector<InputField> request(std::initializer_list<const char*> texts) {
    std::vector<InputField> fields;
    fields.reserve(texts.size());
    for (const char* text : texts)
        fields.emplace_back(text);
    return fields;
}

inline int setFields(Job& job, std::initializer_list<const char*> texts) {
    std::vector<InputField> fields = request(texts);
    return job.setFields(fields);
}
