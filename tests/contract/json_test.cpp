// The functions of json-c that the module imports: a host provides them, too.
#include <string>

#include <json-c/json.h>

#include "contract_test.h"

namespace kavel::contract {
namespace {

constexpr const char *kText = R"({ "VpnId": 7, "DnsHost": [ { "Domain": "nas.example" } ] })";

json_object *BuildTree()
{
    json_object *const root = json_object_new_object();
    json_object *const list = json_object_new_array();
    json_object *const item = json_object_new_object();
    json_object_object_add(item, "Domain", json_object_new_string("nas.example"));
    json_object_array_add(list, item);
    json_object_object_add(root, "VpnId", json_object_new_int(7));
    json_object_object_add(root, "DnsHost", list);
    return root;
}

class Json : public ContractTest {};

TEST_F(Json, TextHasTheMembersInTheirOrder)
{
    PROMISE(kJsonBuild);
    PROMISE(kJsonText);
    json_object *const root = BuildTree();
    EXPECT_STREQ(json_object_to_json_string(root), kText);
    json_object_put(root);
}

TEST_F(Json, TextIsReadOrRefused)
{
    PROMISE(kJsonParse);
    json_object *const root = json_tokener_parse(kText);
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(json_object_to_json_string(root), kText);
    json_object_put(root);
    EXPECT_EQ(json_tokener_parse("{\"broken"), nullptr);
}

TEST_F(Json, TypesHaveTheirNumbers)
{
    PROMISE(kJsonTypes);
    const std::pair<const char *, int> types[] = {{"true", 1}, {"1.5", 2}, {"17", 3},
                                                  {"{}", 4},   {"[]", 5},  {"\"x\"", 6}};
    for (const auto &[text, number] : types) {
        json_object *const value = json_tokener_parse(text);
        EXPECT_EQ(static_cast<int>(json_object_get_type(value)), number) << text;
        json_object_put(value);
    }
}

TEST_F(Json, ValuesAreFound)
{
    PROMISE(kJsonValues);
    json_object *const root = json_tokener_parse(R"({"a": -75, "b": true, "c": "x", "d": [1, 2]})");
    json_object *value = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(root, "a", &value));
    EXPECT_EQ(json_object_get_int(value), -75);
    ASSERT_TRUE(json_object_object_get_ex(root, "b", &value));
    EXPECT_TRUE(json_object_get_boolean(value));
    ASSERT_TRUE(json_object_object_get_ex(root, "c", &value));
    EXPECT_STREQ(json_object_get_string(value), "x");
    ASSERT_TRUE(json_object_object_get_ex(root, "d", &value));
    ASSERT_EQ(json_object_array_length(value), 2U);
    EXPECT_EQ(json_object_get_int(json_object_array_get_idx(value, 1)), 2);
    EXPECT_FALSE(json_object_object_get_ex(root, "e", &value));
    json_object_put(root);
}

TEST_F(Json, ReleaseTellsTheLastReference)
{
    PROMISE(kJsonRelease);
    EXPECT_EQ(json_object_put(BuildTree()), 1);
}

} // namespace
} // namespace kavel::contract
