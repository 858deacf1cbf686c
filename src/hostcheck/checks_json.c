/* The functions of json-c that the module imports. */
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "checks.h"
#include "lab.h"

enum { kTrees = 20000, kGrowthKiB = 1024 };

static const char *const kText = "{ \"Enable\": true, \"VpnId\": 7, \"DnsHost\": [ { \"Domain\": \"nas.example\" } ] }";

static json_object *BuildTree(void)
{
    json_object *root = json_object_new_object();
    json_object *list = json_object_new_array();
    json_object *item = json_object_new_object();
    json_object_object_add(item, "Domain", json_object_new_string("nas.example"));
    json_object_array_add(list, item);
    json_object_object_add(root, "Enable", json_object_new_boolean(1));
    json_object_object_add(root, "VpnId", json_object_new_int(7));
    json_object_object_add(root, "DnsHost", list);
    return root;
}

void CheckJsonBuild(Check *check)
{
    json_object *root = BuildTree();
    json_object *list = NULL;
    if (root == NULL || !json_object_object_get_ex(root, "DnsHost", &list) || json_object_array_length(list) != 1) {
        Broken(check, "an object does not have what was added to it");
    }
}

void CheckJsonText(Check *check)
{
    const char *text = json_object_to_json_string(BuildTree());
    if (text == NULL || strcmp(text, kText) != 0) {
        Broken(check, "%s instead of %s", text == NULL ? "null" : text, kText);
    }
}

void CheckJsonParse(Check *check)
{
    json_object *root = json_tokener_parse(kText);
    if (root == NULL) {
        Broken(check, "%s is refused", kText);
    }
    if (json_tokener_parse("{\"broken") != NULL) {
        Broken(check, "{\"broken is read");
    }
}

static void CheckType(Check *check, const char *text, int expected)
{
    const int type = (int)json_object_get_type(json_tokener_parse(text));
    if (type != expected) {
        Broken(check, "%s has type %d instead of %d", text, type, expected);
    }
}

void CheckJsonTypes(Check *check)
{
    CheckType(check, "true", 1);
    CheckType(check, "1.5", 2);
    CheckType(check, "17", 3);
    CheckType(check, "{}", 4);
    CheckType(check, "[]", 5);
    CheckType(check, "\"text\"", 6);
}

void CheckJsonValues(Check *check)
{
    json_object *root = json_tokener_parse("{\"a\": -75, \"b\": true, \"c\": \"x\", \"d\": [1, 2]}");
    json_object *value = NULL;
    if (!json_object_object_get_ex(root, "a", &value) || json_object_get_int(value) != -75) {
        Broken(check, "\"a\": -75 is not found");
    }
    if (!json_object_object_get_ex(root, "b", &value) || !json_object_get_boolean(value)) {
        Broken(check, "\"b\": true is not found");
    }
    if (!json_object_object_get_ex(root, "c", &value) || strcmp(json_object_get_string(value), "x") != 0) {
        Broken(check, "\"c\": \"x\" is not found");
    }
    if (!json_object_object_get_ex(root, "d", &value) || json_object_array_length(value) != 2 ||
        json_object_get_int(json_object_array_get_idx(value, 1)) != 2) {
        Broken(check, "\"d\": [1, 2] is not found");
    }
    if (json_object_object_get_ex(root, "e", &value)) {
        Broken(check, "a member that does not exist is found");
    }
}

void CheckJsonRelease(Check *check)
{
    long before = 0;
    for (int round = 0; round < kTrees; ++round) {
        json_object *root = BuildTree();
        json_object_to_json_string(root);
        if (json_object_put(root) != 1) {
            Broken(check, "json_object_put does not say that an object is released");
        }
        before = round == kTrees / 2 ? WrittenKiB() : before;
    }
    if (WrittenKiB() - before > kGrowthKiB) {
        Broken(check, "%ld KiB more after %d objects", WrittenKiB() - before, kTrees / 2);
    }
}
