import assert from "node:assert/strict";
import { test } from "node:test";

import { element } from "../../console/element.js";
import { duration, percent, reason, size } from "../../console/format.js";

test("numbers at the edges of their units", () => {
    for (const [bytes, text] of [[0, "0 B"], [1023, "1023 B"], [1024, "1 KiB"], [1073545216, "1023 MiB"], [2 ** 30, "1.0 GiB"], [2 ** 40 - 1, "1.0 TiB"], [2 ** 50, "1024.0 TiB"], [null, "not known"]])
        assert.equal(size(bytes), text);
    for (const [seconds, text] of [[0, "0 s"], [59.6, "1 min"], [3661, "1 h 1 min"], [86400, "1 d"], [400 * 86400, "1 y 35 d"]]) assert.equal(duration(seconds), text);
    for (const [ratio, text] of [[0.9999, "99.9 %"], [1, "100 %"], [0, "0.0 %"]]) assert.equal(percent(ratio), text);
    assert.equal(reason({ text: "20005 ERR_OPERATION_NOT_SUPPORTED: it does not offer this.", object: "sda" }), "It does not offer this.");
    assert.equal(reason({ text: "sda is a member of md_d0", object: "sda" }), "sda is a member of md_d0");
});

test("a text that turns what is around it is shown as what it is, a line feed stays", () => {
    assert.deepEqual(element("p", null, "AB\u202e12345\n\u200bC\u061c\u{e0041}Größe", 7).children, ["AB\ufffd12345\n\ufffdC\ufffd\ufffdGröße", "7"]);
});
