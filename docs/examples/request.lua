#!/usr/bin/env lua
-- request.lua URL: asks pelkin for a URL (a GET) and prints the answer's body. Lua 5.3, luasocket.
local unix = require "socket.unix"

-- Answer to the socket, GET, no data. pack() refuses a URL of more than 255 bytes.
local request = string.pack("=I4I4c255xc144I4", 2, 0, arg[1], "", 0)
local envelope = string.pack("=BBI2I4I4", 0, 0, 0, 0x15000001, #request)
local directory = io.popen("mktemp -d"):read() -- where only this user may enter
local own = unix.dgram()
own:settimeout(10)
assert(own:bind(directory .. "/socket")) -- where the answer goes
local body = own:sendto(envelope .. request, "/var/run/vok/pelkin.socket") and own:receive(61440)
os.remove(directory .. "/socket")
os.remove(directory)
io.write(body or error("no answer", 0))
