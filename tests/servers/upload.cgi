#!/usr/bin/python3
# CGI for upload tests: stores every file part of a multipart/form-data POST
# under $UPLOAD_DIR (by its base name) and answers one line per part:
#   file NAME=FILENAME size=N md5=HEX
#   field NAME=VALUE
import email.parser
import email.policy
import hashlib
import os
import sys


def reply(status, text):
    sys.stdout.write("Status: %s\r\nContent-Type: text/plain\r\n\r\n%s" % (status, text))
    sys.stdout.flush()


def main():
    ctype = os.environ.get("CONTENT_TYPE", "")
    if os.environ.get("REQUEST_METHOD") != "POST" or not ctype.startswith("multipart/form-data"):
        reply("400 Bad Request", "need multipart POST\n")
        return
    length = os.environ.get("CONTENT_LENGTH")
    body = sys.stdin.buffer.read(int(length)) if length else sys.stdin.buffer.read()
    message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(
        b"Content-Type: " + ctype.encode() + b"\r\n\r\n" + body)
    if not message.is_multipart():
        reply("400 Bad Request", "body is not multipart\n")
        return
    upload_dir = os.environ.get("UPLOAD_DIR", "/tmp")
    lines = []
    for part in message.iter_parts():
        name = part.get_param("name", header="content-disposition")
        filename = part.get_filename()
        data = part.get_payload(decode=True) or b""
        if filename:
            filename = os.path.basename(filename)
            with open(os.path.join(upload_dir, filename), "wb") as out:
                out.write(data)
            lines.append("file %s=%s size=%d md5=%s"
                         % (name, filename, len(data), hashlib.md5(data).hexdigest()))
        else:
            lines.append("field %s=%s" % (name, data.decode(errors="replace")))
    reply("200 OK", "\n".join(lines) + "\n")


main()
