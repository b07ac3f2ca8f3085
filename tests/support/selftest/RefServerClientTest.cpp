// The control client and JSON reader that every network test relies on.
#include <gtest/gtest.h>

#include "support/Json.h"
#include "support/RefServer.h"

using qvtest::JsonValue;

TEST(Json, ParsesNestedValues) {
    JsonValue v;
    ASSERT_TRUE(qvtest::ParseJson(R"( {"a": [1, -2.5e1, "x\"\u00e9"], "b": {"c": true, "d": null}} )", &v));
    EXPECT_EQ(v["a"].Size(), 3u);
    EXPECT_EQ(v["a"][1].number, -25.0);
    EXPECT_EQ(v["a"][2].AsString(), "x\"\xC3\xA9");
    EXPECT_TRUE(v["b"]["c"].boolean);
    EXPECT_TRUE(v["b"]["d"].IsNull());
    EXPECT_TRUE(v["missing"].IsNull());
}

TEST(Json, RefusesMalformedInput) {
    JsonValue v;
    EXPECT_FALSE(qvtest::ParseJson("{\"a\": }", &v));
    EXPECT_FALSE(qvtest::ParseJson("[1, 2", &v));
    EXPECT_FALSE(qvtest::ParseJson("\"open", &v));
    EXPECT_FALSE(qvtest::ParseJson("1 2", &v));
    EXPECT_EQ(qvtest::JsonQuote("a\"b\\\n"), "\"a\\\"b\\\\\\n\"");
}

TEST(RefServerClient, CreatesAnInstanceAndReadsItsState) {
    qvtest::RefServerInstance server(R"({"cancels": ["one", "two"]})");
    ASSERT_TRUE(server.Ok());
    EXPECT_GT(server.HttpPort(), 0);
    EXPECT_GT(server.HttpsPort(), 0);
    EXPECT_NE(server.HttpPort(), server.HttpsPort());
    EXPECT_EQ(server.StateJson("cancels"), "[\"one\", \"two\"]");
    EXPECT_TRUE(server.Configure(R"({"cancels": []})"));
    EXPECT_EQ(server.StateJson("cancels"), "[]");
    EXPECT_TRUE(server.AddFaults(R"([{"status": 500, "body": "x"}])"));
    EXPECT_FALSE(server.AddFaults(R"([{"chunks": [0]}])"));
    EXPECT_TRUE(server.Requests().empty());
}
