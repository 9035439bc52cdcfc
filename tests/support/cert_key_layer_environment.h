// Test programs read and write keys as the agent and tagent do: with the
// certificate layer's part in the key code installed before any test runs.
#pragma once

#include <gtest/gtest.h>

#include "pki/cert_key_layer.h"

class CertKeyLayerEnvironment : public ::testing::Environment {
public:
    void SetUp() override { cert_key_layer_install(); }
};

inline ::testing::Environment *const cert_key_layer_environment =
    ::testing::AddGlobalTestEnvironment(new CertKeyLayerEnvironment);
