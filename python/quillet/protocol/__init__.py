"""The protocol that agents and daemon speak: the forms of messages and results, and no streams."""
