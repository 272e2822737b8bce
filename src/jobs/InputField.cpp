#include "jobs/InputField.h"

#include "foundation/OwnedText.h"

#include <cstring>
#include <string>
#include <strings.h>
#include <utility>

const char* const InputField::FieldName[18] = {
    "Filename",         "SrcFilename",  "MarkInTime",         "MarkOutTime",   "StartTime",
    "EndTime",          "Duration",     "NumEncoders",        "EncoderIp",     "EncoderProfile",
    "EncoderVitcInput", "DecoderIp",    "DecoderProfile",     "DecoderIntfIp", "Control_Ip_Address",
    "Subtype",          "VTR_Com_Port", "VTR_UseInternalCue",
};
static_assert(std::size(InputField::FieldName) == InputField::VTR_USE_INTERNAL_CUE + 1);

InputField::InputField(const char* text) {
    const char* equals = text == nullptr ? nullptr : std::strchr(text, '=');
    if (equals == nullptr)
        return;
    SetName(std::string(text, equals).c_str());
    SetCurrValue(equals + 1);
}

InputField::InputField(const InputField& other) {
    kestrel::replaceOwned(name, other.name);
    kestrel::replaceOwned(currValue, other.currValue);
    kestrel::replaceOwned(defaultValue, other.defaultValue);
}

InputField::InputField(InputField&& other) noexcept
    : name(std::exchange(other.name, nullptr)), currValue(std::exchange(other.currValue, nullptr)),
      defaultValue(std::exchange(other.defaultValue, nullptr)), choices(std::move(other.choices)) {
    other.choices.clear();
}

InputField& InputField::operator=(const InputField& other) {
    if (this != &other)
        *this = InputField(other);
    return *this;
}

InputField& InputField::operator=(InputField&& other) noexcept {
    std::swap(name, other.name);
    std::swap(currValue, other.currValue);
    std::swap(defaultValue, other.defaultValue);
    std::swap(choices, other.choices);
    return *this;
}

InputField::~InputField() {
    kestrel::dropOwned(name);
    kestrel::dropOwned(currValue);
    kestrel::dropOwned(defaultValue);
    for (char*& choice : choices)
        kestrel::dropOwned(choice);
}

void InputField::SetName(const char* text) {
    kestrel::replaceOwned(name, text);
}

void InputField::SetCurrValue(const char* text) {
    kestrel::replaceOwned(currValue, text);
}

void InputField::SetDefaultValue(const char* text) {
    kestrel::replaceOwned(defaultValue, text);
}

void InputField::AddChoice(const char* text) {
    choices.push_back(nullptr);
    kestrel::replaceOwned(choices.back(), text);
}

int InputField::getFieldName() const noexcept {
    if (name == nullptr)
        return -1;
    for (int number = 0; number < static_cast<int>(std::size(FieldName)); ++number)
        if (std::strncmp(name, FieldName[number], std::strlen(FieldName[number])) == 0)
            return number;
    return -1;
}

bool InputField::getCurrValue_bool(bool dflt) const noexcept {
    if (currValue == nullptr)
        return dflt;
    if (strcasecmp(currValue, "TRUE") == 0)
        return true;
    return strcasecmp(currValue, "FALSE") == 0 ? false : dflt;
}
