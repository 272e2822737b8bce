// One name=value parameter of a job request, and the table of the names that jobs know.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

// A request parameter. Its texts are heap copies that the field owns; null means "not given".
class InputField {
public:
    // Field numbers, the index of each name in FieldName.
    enum Number {
        FILENAME = 0,
        SRC_FILENAME = 1,
        MARK_IN_TIME = 2,
        MARK_OUT_TIME = 3,
        START_TIME = 4,
        END_TIME = 5,
        DURATION = 6,
        NUM_ENCODERS = 7,
        ENCODER_IP = 8,
        ENCODER_PROFILE = 9,
        ENCODER_VITC_INPUT = 10,
        DECODER_IP = 11,
        DECODER_PROFILE = 12,
        DECODER_INTF_IP = 13,
        CONTROL_IP_ADDRESS = 14,
        SUBTYPE = 15,
        VTR_COM_PORT = 16,
        VTR_USE_INTERNAL_CUE = 17,
    };

    // The known names, by field number.
    static const char* const FieldName[18];

    // All texts null, no choices.
    InputField() noexcept = default;
    // Splits text at its first "=": the name before it, the value (possibly empty) after it. A text without
    // "=" (or null) leaves both null.
    explicit InputField(const char* text);
    // Copies name, current and default value. The copy has no choices, deliberately: choices describe the
    // form that a field was offered in, not the value that travels in a request.
    InputField(const InputField& other);
    InputField(InputField&& other) noexcept;
    InputField& operator=(const InputField& other);
    InputField& operator=(InputField&& other) noexcept;
    ~InputField();

    // Each replaces the text with a copy of the argument, which must not be null.
    void SetName(const char* text);
    void SetCurrValue(const char* text);
    void SetDefaultValue(const char* text);
    // Appends a copy of the argument, which must not be null, to the choices.
    void AddChoice(const char* text);

    // Number of the first entry of FieldName that is a prefix of the name (case-sensitive), else -1. So
    // EncoderIp0, EncoderIp1, ... are all ENCODER_IP.
    [[nodiscard]] int getFieldName() const noexcept;
    // True for "TRUE", false for "FALSE" (any case), dflt for any other text and when there is no value.
    [[nodiscard]] bool getCurrValue_bool(bool dflt) const noexcept;

    char* name = nullptr;
    char* currValue = nullptr;
    char* defaultValue = nullptr;
    std::vector<char*> choices;
};
