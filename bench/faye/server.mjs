// The server that bayeux_bench.py compares with. Prints its port; ends with its standard input.

import http from "node:http";
import faye from "faye";

const server = http.createServer();
new faye.NodeAdapter({mount: "/bayeux", timeout: 45}).attach(server);
server.listen(0, "127.0.0.1", () => console.log(server.address().port));
process.stdin.on("end", () => process.exit()).resume();
