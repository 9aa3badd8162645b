#pragma once

#include "orka/qrx.h"

#include "Collaboration.pb.h"
#include "Kova.pb.h"

#include <cstdint>
#include <string>
#include <unordered_map>

// How the numbers and names of the camera's messages correspond to the radio's codes. The codec
// translates with these tables; a key that is absent has no counterpart and there is no default.
// Constant after static initialisation; any thread.
namespace orka {

const std::unordered_map<Kova::SubscriptionMsgCode, qrx::Opcode> kSubscriptionOpcodes = {
    {Kova::SUBSCRIBE_BATTERY_LEVEL, qrx::Opcode{0xB413}},
    {Kova::SUBSCRIBE_PHYSICAL_USER_INPUT, qrx::Opcode{0xB40B}},
    {Kova::SUBSCRIBE_BLUETOOTH_STATUS, qrx::Opcode{0xB432}},
    {Kova::SUBSCRIBE_VIDEO_CONTROL, qrx::Opcode{0x0498}},
    {Kova::SUBSCRIBE_LTE_STATUS, qrx::Opcode{0xB49B}},
    {Kova::SUBSCRIBE_COVERT_MODE, qrx::Opcode{0xB47F}},
    {Kova::SUBSCRIBE_WLAN_STATUS, qrx::Opcode{0xB479}},
    {Kova::SUBSCRIBE_EMERGENCY, qrx::Opcode{0x0011}},
    {Kova::SUBSCRIBE_USER_PRESENCE, qrx::Opcode{0x049A}},
    {Kova::SUBSCRIBE_LOCATION, qrx::Opcode{0x000F}},
    {Kova::SUBSCRIBE_FILE_HANDLE, qrx::Opcode{0x049E}},
    {Kova::SUBSCRIBE_LUI_ERROR, qrx::Opcode{0xB485}},
};

const std::unordered_map<Kova::GattConfigPropertyName, qrx::GattConfigDescriptorCode>
    kGattDescriptorCodes = {
        {Kova::GATT_DEVICE_NAME, qrx::GattConfigDescriptorCode{1}},
        {Kova::GATT_APPEARANCE, qrx::GattConfigDescriptorCode{2}},
        {Kova::GATT_SERVICE_UUID, qrx::GattConfigDescriptorCode{3}},
        {Kova::GATT_CHARACTERISTIC_UUID, qrx::GattConfigDescriptorCode{4}},
        {Kova::GATT_ADVERTISING_INTERVAL, qrx::GattConfigDescriptorCode{5}},
        {Kova::GATT_CONNECTION_INTERVAL, qrx::GattConfigDescriptorCode{6}},
        {Kova::GATT_TX_POWER, qrx::GattConfigDescriptorCode{7}},
        {Kova::GATT_MTU, qrx::GattConfigDescriptorCode{8}},
        {Kova::GATT_SECURITY_LEVEL, qrx::GattConfigDescriptorCode{9}},
        {Kova::GATT_MANUFACTURER_DATA, qrx::GattConfigDescriptorCode{10}},
};

const std::unordered_map<std::string, qrx::ButtonConfigIdentifier> kButtonIdentifiers = {
    {"OneDot", qrx::ButtonConfigIdentifier{145}},
    {"TwoDots", qrx::ButtonConfigIdentifier{146}},
    {"ThreeDots", qrx::ButtonConfigIdentifier{102}},
    {"EButton", qrx::ButtonConfigIdentifier{151}},
};

const std::unordered_map<std::string, qrx::BrightnessIntensity> kBrightnessIntensities = {
    {"Off", qrx::BrightnessIntensity{0}},
    {"Low", qrx::BrightnessIntensity{125}},
    {"Medium", qrx::BrightnessIntensity{200}},
    {"High", qrx::BrightnessIntensity{255}},
};

const std::unordered_map<qrx::VideoActionType, Kova::VideoActionType> kVideoActions = {
    {qrx::VideoActionType{0}, Kova::VIDEO_ACTION_NONE},
    {qrx::VideoActionType{1}, Kova::VIDEO_ACTION_START_RECORDING},
    {qrx::VideoActionType{2}, Kova::VIDEO_ACTION_STOP_RECORDING},
    {qrx::VideoActionType{3}, Kova::VIDEO_ACTION_START_STREAMING},
    {qrx::VideoActionType{4}, Kova::VIDEO_ACTION_STOP_STREAMING},
    {qrx::VideoActionType{5}, Kova::VIDEO_ACTION_SNAPSHOT},
};

const std::unordered_map<std::uint8_t, Collaboration::AttributeID> kAttributeIds = {
    {0x00, Collaboration::DEVICE_TYPE},        {0x17, Collaboration::BATTERY_STATE},
    {0x18, Collaboration::AUDIO_CAPABILITY},   {0x19, Collaboration::VIDEO_CAPABILITY},
    {0x24, Collaboration::NETWORK_CAPABILITY},
};

}  // namespace orka
